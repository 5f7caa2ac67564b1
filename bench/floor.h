#ifndef ARM_BENCH_FLOOR_H
#define ARM_BENCH_FLOOR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The least that a client of the engine can do: the contract's System V operations for one start,
 * one copy of the record into the ring, one copy of the reply out of it, the clock and the two
 * requests for the process's number.  No mutex, no check of what the segment holds, no tracing, no
 * error records, no reconnecting.  What the library costs is measured against it.
 */

/** Opens both queues for the process.  0, or -1 when no engine is there. */
int floorOpen(void);

/** Starts one transaction of a class, without a data block.  The engine's result. */
int32_t floorStart(int32_t tran_id);

/** The same, looking for the caller's head record from the first one on in every call. */
int32_t floorStartScanning(int32_t tran_id);

#ifdef __cplusplus
}
#endif

#endif
