#include "ipc/arm_ipc.h"

#include <unistd.h>

#include <initializer_list>
#include <new>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "diag/wcdebug.h"

// Constructed in this order when the library is loaded, destroyed in the reverse order.
CkesMutex OutQueueMutex;
CkesMutex InQueueMutex;
CkesMutex IsClosingMutex;

CSharedQueue<TRequestQueue>* OutQueue = nullptr;
CSharedQueue<TReplyQueue>* InQueue = nullptr;
std::atomic<int32_t> OutQueueCount{0};
std::atomic<int32_t> InQueueCount{0};
TIPCIdentifier engineID = {0, 0};

namespace {

constexpr const char* REQUEST_QUEUE_NAME = "/var/kelp/controls_ae.kelp";
constexpr const char* REPLY_QUEUE_NAME = "/var/kelp/controls_ea.kelp";

constexpr long NO_ENGINE = -2;
constexpr long QUEUE_FULL = -8;
constexpr long QUEUE_FAILED = -9;

constexpr useconds_t CLOSE_POLL_MICROSECONDS = 1000;
constexpr int CLOSE_POLLS = 4000;

void log(const char* text) {
  if (VDebugRun) wcDebug(text);
}

void passEntryGate() {
  (void)IsClosingMutex.Lock();
  (void)IsClosingMutex.Unlock();
}

void addTo(std::atomic<int32_t>& count, int32_t by) {
  count.fetch_add(by, std::memory_order_relaxed);
}

/// Counts a user in and gives it the queue, null while the connection is closed.
template <typename Queue>
CSharedQueue<Queue>* enter(CkesMutex& mutex, std::atomic<int32_t>& count,
                           CSharedQueue<Queue>* const& queue) {
  (void)mutex.Lock();
  addTo(count, 1);
  CSharedQueue<Queue>* used = queue;
  if (used != nullptr) used->Acquire();
  (void)mutex.Unlock();
  return used;
}

/// Changes the count and ends the use of the queue.
template <typename Queue>
void leave(CkesMutex& mutex, std::atomic<int32_t>& count, int32_t by, CSharedQueue<Queue>* used) {
  (void)mutex.Lock();
  addTo(count, by);
  (void)mutex.Unlock();
  if (used != nullptr) used->Release();
}

/// Takes a queue out of the connection and ends the connection's use of it.
template <typename Queue>
void closeQueue(CkesMutex& mutex, CSharedQueue<Queue>*& queue) {
  (void)mutex.Lock();
  CSharedQueue<Queue>* closed = queue;
  queue = nullptr;
  (void)mutex.Unlock();
  if (closed != nullptr) closed->Release();
}

/// What keeps a request queue from being used, null when nothing does.
const char* requestQueueFailure(const TRequestQueue* queue) {
  if (queue == nullptr) return "InitializeIPC, OutQueue is NULL\n";
  if (!queue->IsInitialized()) return "InitializeIPC, OutQueue is not Initialized\n";
  if (!queue->CreatorAlive()) return "InitializeIPC, OutQueue Creator is not alive\n";
  // Deliberate: a queue that is only not ready has no line of its own.
  return queue->IsReadyForIO() ? nullptr : "";
}

/// Opens a request queue; null, with the reason logged, when it cannot be used.
CSharedQueue<TRequestQueue>* openRequestQueue() {
  auto* queue = new (std::nothrow) CSharedQueue<TRequestQueue>(REQUEST_QUEUE_NAME);
  const char* failure = requestQueueFailure(queue);
  if (failure == nullptr) {
    queue->SetOverflowWait(false);
    return queue;
  }
  log("InitializeIPC, OutQueue failure\n");
  if (*failure != '\0') log(failure);
  if (queue != nullptr) queue->Release();
  return nullptr;
}

void lockQueues() {
  (void)OutQueueMutex.Lock();
  (void)InQueueMutex.Lock();
}

void unlockQueues() {
  (void)InQueueMutex.Unlock();
  (void)OutQueueMutex.Unlock();
}

/// Ends the connection's use of a queue whose pointer has been overwritten.
template <typename Queue>
void releaseReplaced(CSharedQueue<Queue>* replaced) {
  if (replaced != nullptr) replaced->Release();
}

void giveUpReplyQueue() {
  log("InitializeIPC, Failed to create InQueue\n");
  CloseIPC();
  engineID = GetEngineID();
  // Deliberate: unlocked a second time.  CkesMutex tolerates it.
  unlockQueues();
}

long resultOfPut(long code) {
  if (code == 0) return 0;
  return code == TRequestQueue::ERR_FULL ? QUEUE_FULL : QUEUE_FAILED;
}

bool engineIsUsable(const TRequestQueue* queue) {
  if (queue == nullptr) {
    log("IsEngineAlive: OutQueue is NULL\n");
    return false;
  }
  if (!queue->CreatorAlive()) {
    log("IsEngineAlive: CreatorAlive failed\n");
    return false;
  }
  const unsigned long version = queue->GetArmVersion();
  if (version == ARM_QUEUE_VERSION) return true;
  if (VDebugRun) {
    traceFormat("IsEngineAlive: OutQueue version[%lu] does not match libarm version[%lu]\n",
                version, static_cast<unsigned long>(ARM_QUEUE_VERSION));
  }
  return false;
}

}  // namespace

bool InitializeIPC() {
  passEntryGate();
  lockQueues();
  // Two threads that both found the engine dead may come here one after the other: the pointers of
  // the first are overwritten by the second.
  CSharedQueue<TRequestQueue>* replacedRequests = OutQueue;
  CSharedQueue<TReplyQueue>* replacedReplies = InQueue;
  // A pointer is stored when its queue is complete: a process forked meanwhile finds all or
  // nothing.
  OutQueue = openRequestQueue();
  if (OutQueue == nullptr) {
    unlockQueues();
    releaseReplaced(replacedRequests);
    return false;
  }
  InQueue = new (std::nothrow) CSharedQueue<TReplyQueue>(REPLY_QUEUE_NAME, false);
  const bool usable = InQueue != nullptr && InQueue->IsInitialized();
  if (usable) engineID = GetEngineID();
  unlockQueues();
  releaseReplaced(replacedRequests);
  releaseReplaced(replacedReplies);
  if (!usable) giveUpReplyQueue();
  return usable;
}

long IPCPostToEngine(const TArmMessage& msg) {
  passEntryGate();
  CSharedQueue<TRequestQueue>* queue = enter(OutQueueMutex, OutQueueCount, OutQueue);
  long result = NO_ENGINE;
  if (queue != nullptr && queue->CreatorAlive()) result = resultOfPut(queue->Put(msg));
  leave(OutQueueMutex, OutQueueCount, -1, queue);
  return result;
}

long IPCGetFromEngine(TArmReplyMessage& reply) {
  return IPCGetFromEngine(reply, GetIpcIdentifier());
}

long IPCGetFromEngine(TArmReplyMessage& reply, _TIPCIdentifier id) {
  passEntryGate();
  CSharedQueue<TReplyQueue>* queue = enter(InQueueMutex, InQueueCount, InQueue);
  long result = NO_ENGINE;
  if (queue != nullptr && queue->CreatorAlive()) {
    result = queue->Get(id, reply) == 0 ? 0 : QUEUE_FAILED;
  }
  leave(InQueueMutex, InQueueCount, -1, queue);
  return result;
}

bool IsEngineAlive() {
  passEntryGate();
  CSharedQueue<TRequestQueue>* queue = enter(OutQueueMutex, OutQueueCount, OutQueue);
  const bool alive = engineIsUsable(queue);
  // Deliberate: the count goes up, not down, on the way out.  CloseIPC therefore never sees the
  // request queue idle again.
  leave(OutQueueMutex, OutQueueCount, +1, queue);
  return alive;
}

void CloseIPC() {
  (void)IsClosingMutex.Lock();
  for (int polls = 0; polls < CLOSE_POLLS && InQueueCount > 0 && OutQueueCount > 0; ++polls) {
    (void)usleep(CLOSE_POLL_MICROSECONDS);
  }
  closeQueue(OutQueueMutex, OutQueue);
  closeQueue(InQueueMutex, InQueue);
  (void)IsClosingMutex.Unlock();
}

void renewIPCInForkedChild() {
  for (CkesMutex* mutex : {&OutQueueMutex, &InQueueMutex, &IsClosingMutex}) mutex->RenewAfterFork();
  OutQueueCount = 0;
  InQueueCount = 0;
  if (OutQueue != nullptr) OutQueue->KeepOneUse();
  if (InQueue != nullptr) InQueue->KeepOneUse();
}
