#pragma once

#include <atomic>
#include <cstdint>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "ipc/CIPCQueue.h"
#include "ipc/CIPCSimpleQueue.h"
#include "ipc/CSharedQueue.h"
#include "platform/CkesMutex.h"

// The process's connection to the engine: one request queue and one reply queue.
//
// Locks, always taken in this order:
//   IsClosingMutex   held for the whole of CloseIPC; every other function locks and unlocks it once
//                    as it begins, so that it waits while the queues are being closed
//   OutQueueMutex    guards OutQueue and OutQueueCount
//   InQueueMutex     guards InQueue and InQueueCount
// None is held across a wait of a queue.  CloseIPC reads the counts without their mutexes.
//
// The results of Lock and Unlock are not looked at: before the mutexes are constructed, and after
// they are destroyed, the code runs unguarded.

using TRequestQueue = CIPCSimpleQueue<TArmMessage>;
using TReplyQueue = CIPCQueue<TArmReplyMessage>;

/// No engine in particular.
inline constexpr int ANY_ENGINE = -1;

extern CkesMutex OutQueueMutex;
extern CkesMutex InQueueMutex;
extern CkesMutex IsClosingMutex;

/// The request queue on REQUEST_QUEUE_NAME, null while the connection is closed.
extern CSharedQueue<TRequestQueue>* OutQueue;
/// The reply queue on REPLY_QUEUE_NAME, null while the connection is closed.
extern CSharedQueue<TReplyQueue>* InQueue;
/// Callers inside a request-queue operation, and one more for every IsEngineAlive so far.
extern std::atomic<int32_t> OutQueueCount;
/// Callers inside a reply-queue operation.
extern std::atomic<int32_t> InQueueCount;
/// The engine's identifier, copied when opening ends.
extern TIPCIdentifier engineID;

/// Opens both queues; true when both are usable.  Called only while the connection is not open.
bool InitializeIPC();

/// Posts one request; never waits for room.  0, -2 (no queue, or its creator is dead), -8 (the
/// queue is full and the request is lost) or -9.
///   used    bytes of the record that are set
///   engine  where to store which engine the queue belongs to; may be null
long IPCPostToEngine(const TArmMessage& msg, std::size_t used = sizeof(TArmMessage),
                     int* engine = nullptr);

/// Whether the connection is open to that engine.
bool IPCIsOpenTo(int engine);

/// Waits, without a time limit, for the next reply addressed to the calling thread, or to id.  0,
/// -2 (no queue, its creator is dead, or the connection has been opened to another engine than the
/// one given) or -9.
///   closed  set when there is no queue, or only one of another engine; may be null
long IPCGetFromEngine(TArmReplyMessage& reply);
long IPCGetFromEngine(TArmReplyMessage& reply, _TIPCIdentifier id, int engine = ANY_ENGINE,
                      bool* closed = nullptr);

/// True when the request queue is open, its creator alive and its version word 50300.
bool IsEngineAlive();

/// Closes both queues.  Waits up to four seconds while both have users; then closes all the same.
void CloseIPC();

/// Called in a forked child, before anything else of the library: the threads that held mutexes or
/// used the queues exist in the parent only.  The queues stay open.
void renewIPCInForkedChild();
