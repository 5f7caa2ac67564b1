/**
 * armext.h - what libarm offers beside the ARM 2.0 calls: registration without conversion, whole
 * transactions reported after the fact, completions, metric data, the correlator's environment
 * variable and the process's code set.
 *
 * Results, threads and manners are those of arm.h.
 */
#ifndef ARMEXT_H_INCLUDED
#define ARMEXT_H_INCLUDED

#include "arm.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Largest length of arm_associateMetricData, in bytes. */
#define ARM_METRIC_DATA_SIZE 4096

/**
 * arm_init with a choice: convert non-zero converts both names from the expected code set to UTF-8
 * (as arm_init does), convert zero sends their bytes as they are.
 *
 * With convert zero and the user "*", a login name that cannot be converted makes the library set
 * the first byte of appl_user_id to zero, if that memory is writable.
 */
arm_int32_t w_ArmInit(unsigned char convert, const char* appl_name, const char* appl_user_id,
                      arm_int32_t flags, void* data, arm_int32_t data_size);

/** arm_getid with a choice: convert as in w_ArmInit, for tran_name and tran_detail. */
arm_int32_t w_ArmGetID(unsigned char convert, arm_int32_t appl_id, const char* tran_name,
                       const char* tran_detail, arm_int32_t flags, void* data,
                       arm_int32_t data_size);

/**
 * Reports a whole transaction in one message.
 *
 * tran_handle     an id or handle, not negative
 * ignored_value   accepted and never used
 * data            an arm_user_data1_t (in and out, correlator as in arm_start), or null
 * data_size       its size in bytes, positive; 0 without a block
 * stamp_time      non-zero: the record carries the time of the call; zero: it carries time 0
 * report_value1, report_value2   not negative; their meaning is the engine's
 * report_value3   any value; its meaning is the engine's
 *
 * Returns the engine's answer, 0 for IGNOREID, or -1, -2, -8 or -9.
 */
arm_int32_t arm_transactionReport(arm_int32_t tran_handle, arm_int32_t ignored_value, void* data,
                                  arm_int32_t data_size, arm_int32_t stamp_time,
                                  arm_int32_t report_value1, arm_int32_t report_value2,
                                  arm_int32_t report_value3);

/** Reports a whole transaction instance; arguments and results as in arm_transactionReport. */
arm_int32_t arm_transactionInstanceReport(arm_int32_t tran_handle, arm_int32_t ignored_value,
                                          void* data, arm_int32_t data_size, arm_int32_t stamp_time,
                                          arm_int32_t report_value1, arm_int32_t report_value2,
                                          arm_int32_t report_value3);

/**
 * Completes a transaction.  The time is taken in this call.
 *
 * tran_handle       an id or handle, not negative
 * complete_value1   not negative; its meaning is the engine's
 * complete_value2   any value; its meaning is the engine's
 *
 * Returns the engine's answer, 0 for IGNOREID, or -1, -2, -8 or -9.
 */
arm_int32_t arm_completeTransaction(arm_int32_t tran_handle, arm_int32_t complete_value1,
                                    arm_int32_t complete_value2);

/** Completes a transaction instance; arguments and results as in arm_completeTransaction. */
arm_int32_t arm_completeTransactionInstance(arm_int32_t tran_handle, arm_int32_t complete_value1,
                                            arm_int32_t complete_value2);

/**
 * Attaches metric data to a transaction.
 *
 * tran_handle   an id or handle, not negative
 * buffer        length bytes, copied as they are; not null
 * length        1 to 4096
 *
 * Returns the engine's answer, 0 for IGNOREID, or -1, -2, -8 or -9.
 */
arm_int32_t arm_associateMetricData(arm_int32_t tran_handle, const void* buffer,
                                    arm_int32_t length);

/**
 * Returns the name of the environment variable through which a program may hand its correlator to
 * the programs that it starts: the constant string "ARM_CORRELATOR".  The library itself neither
 * sets nor reads that variable.  Cannot fail and needs no engine.
 */
const char* arm_getCorrelatorKey(void);

/**
 * Names the code set of the strings that the registration calls convert; null means ICU's default
 * one: that of the process's locale, or UTF-8 where ICU was built so, as Debian's is.  Takes effect
 * only before the first conversion.
 *
 * Returns 0; -3 when the converter's data directory could not be put into the environment; -1003
 * when the code set is unknown (no converter is open then); -3004 when a converter is already open
 * (nothing changes).
 */
arm_int32_t SetExpectedCodeset(const char* codeset);

/**
 * Returns the name of the code set in use, or null when no converter is open yet.  The string
 * belongs to the library and stays valid for the life of the process.
 */
const char* GetExpectedCodeset(void);

#ifdef __cplusplus
}
#endif

#endif
