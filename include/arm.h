/**
 * arm.h - the Application Response Measurement (ARM) 2.0 interface of libarm.
 *
 * Six calls mark the transactions of a program:
 *
 *     arm_init      registers the application               -> application id
 *     arm_getid     registers a transaction class           -> transaction id
 *     arm_start     opens one instance of a class           -> start handle
 *     arm_update    reports progress of an open instance    -> status
 *     arm_stop      closes an instance                      -> status
 *     arm_end       ends the application                    -> status
 *
 * The library measures and stores nothing itself.  Every call posts one record to a separate local
 * process, the engine, and blocks until the engine has answered it.
 *
 * Results.  A negative result is an error that the application may log and otherwise ignore; a
 * negative id may be handed on to the later calls, which then do nothing:
 *
 *     > 0, 0   what the engine answered (an id, a handle or a status; usually 0 for a status)
 *     -1       an argument was rejected; nothing was sent
 *     -2       the engine cannot be reached (it is not running, or it ended); this is tested before
 *              any argument
 *     -3       the code-set converter could not be set up (registration calls only)
 *     -8       the request queue is full; the record was dropped
 *     -9       another failure of a queue (for instance: the engine stopped while the call waited)
 *     -1003    a string could not be converted to UTF-8 (registration calls only)
 *     other    a negative status of the engine, passed on unchanged
 *
 * Threads.  Every call may be made by any number of threads at once.  A thread waits only for the
 * answer to its own call; that wait has no time limit.
 *
 * Guest's manners.  No call throws, exits, changes errno or can be cancelled half-way.  Nothing is
 * printed, but for one line on standard output when tracing is asked for (ARMDEBUG in the
 * environment) and the trace file cannot be opened.
 *
 * Strings end in a zero byte and are in the code set of the process's locale unless the application
 * names another one (SetExpectedCodeset in armext.h).
 *
 * The header is plain C90 and is usable from every later C and from C++.
 */
#ifndef ARM_H_INCLUDED
#define ARM_H_INCLUDED

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Signed 32-bit value: every id, handle, status, flag word and size of the interface. */
typedef int32_t arm_int32_t;
/** Unsigned 32-bit value. */
typedef uint32_t arm_uint32_t;
/** Unsigned 16-bit value. */
typedef uint16_t arm_uint16_t;
/** One byte of flags or of uninterpreted data. */
typedef uint8_t arm_uint8_t;

#ifdef ARM_BARE_TYPE_NAMES
/*
 * The bare type names that the standard's text uses.  They collide with other headers, so they
 * exist only for programs that define ARM_BARE_TYPE_NAMES before including this header.
 */
typedef arm_int32_t int32;
typedef arm_uint32_t unsigned32;
typedef arm_uint16_t unsigned16;
typedef arm_uint8_t bit8;
#endif

/** Completion status for arm_stop: the transaction ended as expected. */
#define ARM_GOOD 0
/** Completion status for arm_stop: a fundamental fault of the system ended the transaction. */
#define ARM_ABORT 1
/** Completion status for arm_stop: the software worked, but the wanted result could not be given.
 */
#define ARM_FAILED 2

/**
 * The start handle of a transaction that is not measured, because its parent's correlator says so.
 * arm_update and arm_stop return 0 for it and send nothing.
 */
#define IGNOREID 2147483647

/** Format word of the data block of arm_start, arm_update and arm_stop (arm_user_data1_t). */
#define ARM_DATA_FORMAT_1 1
/** Format word of the opaque data block of arm_update (arm_user_data2_t). */
#define ARM_DATA_FORMAT_2 2
/** Format word of the metric descriptions of arm_getid (arm_user_data101_t). */
#define ARM_DATA_FORMAT_101 101

/** flags[0] of arm_user_data1_t: the block carries the correlator of the parent transaction. */
#define ARM_CorrPar_f 0x80
/** flags[0]: the application asks arm_start for a correlator of the new transaction. */
#define ARM_CorrReq_f 0x40
/** flags[0]: set by the library when it has put a correlator into the block. */
#define ARM_CorrGen_f 0x20
/** flags[0]: the application asks for this transaction to be traced; passed through. */
#define ARM_TraceReq_f 0x10

/** flags[1] of arm_user_data1_t and arm_user_data101_t: which of the seven slots are in use. */
#define ARM_Metric1_f 0x80
#define ARM_Metric2_f 0x40
#define ARM_Metric3_f 0x20
#define ARM_Metric4_f 0x10
#define ARM_Metric5_f 0x08
#define ARM_Metric6_f 0x04
#define ARM_String1_f 0x02
#define ARM_AllMetrics_f 0xFE

/** Metric types of arm_user_data101_t: a counter only grows, a gauge goes up and down. */
#define ARM_Counter32 1
#define ARM_Counter64 2
#define ARM_CntrDivr32 3
#define ARM_Gauge32 4
#define ARM_Gauge64 5
#define ARM_GaugeDivr32 6
#define ARM_NumericID32 7
#define ARM_NumericID64 8
#define ARM_String8 9
#define ARM_String32 10

/** Longest application and user name in bytes, the terminating zero included. */
#define ARM_NAME_SIZE 128
/** Size of a correlator in bytes.  Its content belongs to the engine; copy it whole. */
#define ARM_CORRELATOR_SIZE 168

/** A correlator, 168 opaque bytes: hand it to a child transaction, wherever that runs. */
typedef struct arm_correlator_t {
  arm_uint8_t bytes[ARM_CORRELATOR_SIZE];
} arm_correlator_t;

/**
 * One metric slot, 8 bytes, read according to the slot's type.  64-bit values are little-endian:
 * the low word first.
 */
typedef union arm_metric_t {
  arm_int32_t value32; /**< 32-bit counter, gauge or numeric id */
  struct {
    arm_int32_t value;   /**< counter or gauge */
    arm_int32_t divisor; /**< what the value is to be divided by */
  } ratio32;
  struct {
    arm_uint32_t low;  /**< bits 0 to 31 */
    arm_uint32_t high; /**< bits 32 to 63 */
  } value64;
  char string8[8];      /**< short string, padded with zero bytes */
  arm_uint8_t bytes[8]; /**< the slot as it is */
} arm_metric_t;

/**
 * The data block of arm_start, arm_update and arm_stop, 256 bytes.  Offsets: format 0, flags 4,
 * metrics 8, string 56, correlator 88.  The library always copies all 256 bytes, whatever positive
 * size the caller gives: never pass a shorter block.
 */
typedef struct arm_user_data1_t {
  arm_int32_t format;     /**< ARM_DATA_FORMAT_1; otherwise start and update ignore the block */
  arm_uint8_t flags[4];   /**< see ARM_CorrPar_f and ARM_Metric1_f; flags[2], flags[3] are 0 */
  arm_metric_t metric[6]; /**< metrics 1 to 6 */
  char string32[32];      /**< metric 7 */
  arm_correlator_t correlator; /**< in: the parent's; out: the new transaction's */
} arm_user_data1_t;

/** The opaque data block of arm_update, 1024 bytes.  Always passed whole. */
typedef struct arm_user_data2_t {
  arm_int32_t format; /**< ARM_DATA_FORMAT_2 */
  char data[1020];    /**< text or data that the library does not look at */
} arm_user_data2_t;

/** One metric description, 48 bytes. */
typedef struct arm_metric_description_t {
  arm_int32_t type; /**< ARM_Counter32 to ARM_String32 */
  char name[44];    /**< name of the metric, ends in a zero byte */
} arm_metric_description_t;

/** The metric descriptions of arm_getid, 344 bytes.  Always passed whole. */
typedef struct arm_user_data101_t {
  arm_int32_t format;                 /**< ARM_DATA_FORMAT_101 */
  arm_uint8_t flags[4];               /**< flags[1]: which descriptions are given */
  arm_metric_description_t metric[7]; /**< descriptions of slots 1 to 7 */
} arm_user_data101_t;

/**
 * Registers the application; call it first.
 *
 * appl_name      1 to 127 bytes
 * appl_user_id   0 to 127 bytes; "*" stands for the login name of the process's real user; null is
 *                the empty name
 * flags          sent to the engine as given; the standard reserves it: pass 0
 * data           not used; pass a null pointer
 * data_size      not used; pass 0
 *
 * Returns the application id, or -1 (name missing, empty or too long), -2, -3, -8, -9 or -1003.
 */
arm_int32_t arm_init(const char* appl_name, const char* appl_user_id, arm_int32_t flags, void* data,
                     arm_int32_t data_size);

/**
 * Registers a transaction class of an application.  The engine gives equal classes equal ids.
 *
 * appl_id        what arm_init returned
 * tran_name      1 to 3619 bytes, unique within the application
 * tran_detail    0 to 127 bytes of free text; null is the empty text
 * flags          not used; pass 0
 * data           an arm_user_data101_t, or null; a block of any other format is ignored
 * data_size      its size in bytes, positive; 0 without a block
 *
 * Returns the transaction id, or -1 (id not positive, a name missing, empty or too long), -2, -3,
 * -8, -9 or -1003.
 */
arm_int32_t arm_getid(arm_int32_t appl_id, const char* tran_name, const char* tran_detail,
                      arm_int32_t flags, void* data, arm_int32_t data_size);

/**
 * Opens an instance of a transaction class.  The time is taken in this call.
 *
 * tran_id        what arm_getid returned; 0 is passed to the engine
 * flags          not used; pass 0
 * data           an arm_user_data1_t (in and out), or null; a block of any other format is not sent
 * data_size      its size in bytes, positive; 0 without a block
 *
 * With ARM_CorrReq_f set and a correlator given by the engine, the library sets ARM_CorrGen_f and
 * stores the correlator in the block.  With ARM_CorrPar_f set and a parent that is to be ignored,
 * nothing is sent and the result is IGNOREID; ARM_CorrGen_f is then set when ARM_CorrReq_f is set,
 * else inverted.
 *
 * Returns the start handle, IGNOREID, or -1 (id negative), -2, -8 or -9.
 */
arm_int32_t arm_start(arm_int32_t tran_id, arm_int32_t flags, void* data, arm_int32_t data_size);

/**
 * Reports progress of an open instance; any number of times between start and stop.
 *
 * start_handle   what arm_start returned
 * flags          sent to the engine as given; pass 0
 * data           an arm_user_data1_t or an arm_user_data2_t, or null; other formats are not sent
 * data_size      its size in bytes; 0 without a block
 *
 * Returns the engine's status, 0 for IGNOREID, or -1 (handle not positive), -2, -8 or -9.
 */
arm_int32_t arm_update(arm_int32_t start_handle, arm_int32_t flags, void* data,
                       arm_int32_t data_size);

/**
 * Closes an instance.  The time is taken in this call.
 *
 * start_handle   what arm_start returned; 0 is passed to the engine
 * tran_status    ARM_GOOD, ARM_ABORT or ARM_FAILED; sent as given
 * flags          sent to the engine as given; pass 0
 * data           an arm_user_data1_t, or null; the format is not looked at
 * data_size      its size in bytes, positive; 0 without a block
 *
 * Returns the engine's status, 0 for IGNOREID, or -1 (handle negative), -2, -8 or -9.
 */
arm_int32_t arm_stop(arm_int32_t start_handle, arm_int32_t tran_status, arm_int32_t flags,
                     void* data, arm_int32_t data_size);

/**
 * Ends the application; pairs with one arm_init.  Open instances may still be updated and stopped.
 *
 * appl_id        what arm_init returned
 * flags, data, data_size   not used; pass 0
 *
 * Returns the engine's status, or -1 (id not positive), -2, -8 or -9.
 */
arm_int32_t arm_end(arm_int32_t appl_id, arm_int32_t flags, void* data, arm_int32_t data_size);

#ifdef __cplusplus
}
#endif

#endif
