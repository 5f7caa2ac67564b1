#include "ipc/arm_ipc.h"

#include <unistd.h>

#include <initializer_list>
#include <new>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/EngineObjects.h"

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

constexpr long NO_ENGINE = -2;
constexpr long QUEUE_FULL = -8;
constexpr long QUEUE_FAILED = -9;

constexpr useconds_t CLOSE_POLL_MICROSECONDS = 1000;
constexpr int CLOSE_POLLS = 4000;

void passEntryGate() {
  (void)IsClosingMutex.Pass();
}

void addTo(std::atomic<int32_t>& count, int32_t by) {
  count.fetch_add(by, std::memory_order_relaxed);
}

/// The queue that the calling thread is using, null when it uses none.  Set before the use begins:
/// a child that a signal handler forks in between keeps a queue for too long, and loses none.
template <typename Queue>
__attribute__((tls_model("initial-exec"))) thread_local CSharedQueue<Queue>* ownUse = nullptr;

/// Counts a user in and gives it the queue, null while the connection is closed.
template <typename Queue>
CSharedQueue<Queue>* enter(CkesMutex& mutex, std::atomic<int32_t>& count,
                           CSharedQueue<Queue>* const& queue) {
  (void)mutex.Lock();
  CSharedQueue<Queue>* used = __atomic_load_n(&queue, __ATOMIC_ACQUIRE);
  ownUse<Queue> = used;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  addTo(count, 1);
  if (used != nullptr) used->Acquire();
  (void)mutex.Unlock();
  return used;
}

/// Ends the connection's use of a queue.  When the mutex that orders the uses is gone, the process
/// is ending, and the queue is left to that.
template <typename Queue>
void endUse(const CkesMutex& mutex, CSharedQueue<Queue>* used) {
  if (used != nullptr && mutex.IsInitialized()) used->Release();
}

/// Changes the count and ends the thread's use of the queue.
template <typename Queue>
void leave(CkesMutex& mutex, std::atomic<int32_t>& count, int32_t by, CSharedQueue<Queue>* used) {
  (void)mutex.Lock();
  addTo(count, by);
  (void)mutex.Unlock();
  if (used != nullptr && mutex.IsInitialized()) used->Release(ownUse<Queue>);
}

/// What keeps a request queue from being used, null when nothing does.
const char* requestQueueFailure(const TRequestQueue* queue) {
  if (queue == nullptr) return "InitializeIPC, OutQueue is NULL\n";
  if (!queue->IsInitialized()) return "InitializeIPC, OutQueue is not Initialized\n";
  if (!queue->CreatorAlive()) return "InitializeIPC, OutQueue Creator is not alive\n";
  // Deliberate (not-ready): a queue that is only not ready has no line of its own.
  return queue->IsReadyForIO() ? nullptr : "";
}

/// Opens a request queue; null, with the reason logged, when it cannot be used.
CSharedQueue<TRequestQueue>* openRequestQueue() {
  auto* queue = new (std::nothrow) CSharedQueue<TRequestQueue>(REQUEST_QUEUE_NAME);
  const char* failure = requestQueueFailure(queue);
  if (failure == nullptr) {
    queue->SetOverflowWait(false);
    queue->SetEngine(queue->CreatorId());
    return queue;
  }
  traceText("InitializeIPC, OutQueue failure\n");
  if (*failure != '\0') traceText(failure);
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

/// Stores a queue and returns the one whose pointer that overwrites.  A pointer is stored when its
/// queue is complete: a process forked meanwhile finds all or nothing.
template <typename Queue>
CSharedQueue<Queue>* replace(CSharedQueue<Queue>*& queue, CSharedQueue<Queue>* by = nullptr) {
  return __atomic_exchange_n(&queue, by, __ATOMIC_ACQ_REL);
}

// Written by words: more than one thread may come here.
void copyEngineID() {
  const TIPCIdentifier id = GetEngineID();
  storeShared(engineID.processId, id.processId);
  storeShared(engineID.threadId, id.threadId);
}

void giveUpReplyQueue() {
  traceText("InitializeIPC, Failed to create InQueue\n");
  CloseIPC();
  copyEngineID();
  // Deliberate (second-unlock): unlocked a second time.  CkesMutex tolerates it.
  unlockQueues();
}

long resultOfPut(long code) {
  if (code == 0) return 0;
  return code == TRequestQueue::ERR_FULL ? QUEUE_FULL : QUEUE_FAILED;
}

int engineOf(const CSharedQueue<TRequestQueue>* queue) {
  return queue != nullptr ? queue->Engine() : ANY_ENGINE;
}

bool engineIsUsable(const TRequestQueue* queue) {
  if (queue == nullptr) {
    traceText("IsEngineAlive: OutQueue is NULL\n");
    return false;
  }
  if (!queue->CreatorAlive()) {
    traceText("IsEngineAlive: CreatorAlive failed\n");
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

/// What remains of a queue's uses in a forked child: the connection's, and that of a call which a
/// signal handler has interrupted to fork.
template <typename Queue>
void keepOwnUse(std::atomic<int32_t>& count, CSharedQueue<Queue>* queue) {
  CSharedQueue<Queue>* own = ownUse<Queue>;
  count = own != nullptr ? 1 : 0;
  if (own != nullptr) own->KeepUses(1);
  if (queue != nullptr) queue->KeepUses(queue == own ? 2 : 1);
}

}  // namespace

bool InitializeIPC() {
  passEntryGate();
  lockQueues();
  CSharedQueue<TRequestQueue>* requests = openRequestQueue();
  // Two threads that both found the engine dead may come here one after the other: the pointers of
  // the first are overwritten by the second.
  CSharedQueue<TRequestQueue>* replacedRequests = replace(OutQueue, requests);
  if (requests == nullptr) {
    unlockQueues();
    endUse(OutQueueMutex, replacedRequests);
    return false;
  }
  auto* replies = new (std::nothrow) CSharedQueue<TReplyQueue>(REPLY_QUEUE_NAME, false);
  const bool usable = replies != nullptr && replies->IsInitialized();
  if (usable) replies->SetEngine(requests->Engine());
  CSharedQueue<TReplyQueue>* replacedReplies = replace(InQueue, replies);
  if (usable) copyEngineID();
  unlockQueues();
  endUse(OutQueueMutex, replacedRequests);
  endUse(InQueueMutex, replacedReplies);
  if (!usable) giveUpReplyQueue();
  return usable;
}

long IPCPostToEngine(const TArmMessage& msg, std::size_t used, int* engine) {
  passEntryGate();
  CSharedQueue<TRequestQueue>* queue = enter(OutQueueMutex, OutQueueCount, OutQueue);
  if (engine != nullptr) *engine = engineOf(queue);
  long result = NO_ENGINE;
  if (queue != nullptr && queue->CreatorAlive()) result = resultOfPut(queue->Put(msg, used));
  leave(OutQueueMutex, OutQueueCount, -1, queue);
  return result;
}

bool IPCIsOpenTo(int engine) {
  passEntryGate();
  (void)OutQueueMutex.Lock();
  const bool same = OutQueue != nullptr && OutQueue->Engine() == engine;
  (void)OutQueueMutex.Unlock();
  return same;
}

long IPCGetFromEngine(TArmReplyMessage& reply) {
  return IPCGetFromEngine(reply, GetIpcIdentifier());
}

long IPCGetFromEngine(TArmReplyMessage& reply, _TIPCIdentifier id, int engine, bool* closed) {
  passEntryGate();
  CSharedQueue<TReplyQueue>* queue = enter(InQueueMutex, InQueueCount, InQueue);
  long result = NO_ENGINE;
  const bool fits = queue != nullptr && (engine == ANY_ENGINE || engine == queue->Engine());
  if (closed != nullptr) *closed = !fits;
  if (fits && queue->CreatorAlive()) {
    result = queue->Get(id, reply) == 0 ? 0 : QUEUE_FAILED;
  }
  leave(InQueueMutex, InQueueCount, -1, queue);
  return result;
}

bool IsEngineAlive() {
  passEntryGate();
  CSharedQueue<TRequestQueue>* queue = enter(OutQueueMutex, OutQueueCount, OutQueue);
  const bool alive = engineIsUsable(queue);
  // Deliberate (count-goes-up): the count goes up, not down, on the way out.  CloseIPC therefore
  // never sees the request queue idle again.
  leave(OutQueueMutex, OutQueueCount, +1, queue);
  return alive;
}

void CloseIPC() {
  (void)IsClosingMutex.Lock();
  for (int polls = 0; polls < CLOSE_POLLS && InQueueCount > 0 && OutQueueCount > 0; ++polls) {
    (void)usleep(CLOSE_POLL_MICROSECONDS);
  }
  // Both at once: a connection that another thread opens meanwhile goes whole or stays whole.
  lockQueues();
  CSharedQueue<TRequestQueue>* requests = replace(OutQueue);
  CSharedQueue<TReplyQueue>* replies = replace(InQueue);
  unlockQueues();
  endUse(OutQueueMutex, requests);
  endUse(InQueueMutex, replies);
  (void)IsClosingMutex.Unlock();
}

void renewIPCInForkedChild() {
  for (CkesMutex* mutex : {&OutQueueMutex, &InQueueMutex, &IsClosingMutex}) mutex->RenewAfterFork();
  keepOwnUse(OutQueueCount, OutQueue);
  keepOwnUse(InQueueCount, InQueue);
}
