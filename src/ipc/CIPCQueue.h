#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "diag/CkesErrorManager.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/CIPCUtils.h"
#include "ipc/CReplySegment.h"
#include "ipc/CWakeSet.h"
#include "ipc/EngineObjects.h"
#include "ipc/ReplyQueueLayout.h"
#include "ipc/queuestate.h"
#include "platform/CkesSharedMemory.h"
#include "platform/sharedword.h"

/// The reader's end of the reply queue: a shared segment, created and written by the engine, in
/// which replies of type T wait in one list per requester (ReplyQueueLayout.h).  A requester waits
/// on the semaphore of its own head record, so that a reply wakes only the thread it is addressed
/// to.
///
/// Results are 0 or a negative code, also recorded with the error manager.  Any number of threads
/// of any number of processes may get at once: lists are read and changed under the segment's lock
/// only, which no thread holds while it sleeps.
template <typename T>
class CIPCQueue {
 public:
  static constexpr long ERR_WAIT = -272;
  static constexpr long ERR_NO_HEAD = -274;
  static constexpr long ERR_NOT_INITIALIZED = -276;
  static constexpr long ERR_NOT_FOUND = -277;
  static constexpr long ERR_INDEX = -278;
  static constexpr long ERR_GETNCNT = CReplySegment<T>::ERR_GETNCNT;
  static constexpr long ERR_WAKE_WRITER = CReplySegment<T>::ERR_WAKE_WRITER;
  static constexpr long ERR_WAKE_READER = CReplySegment<T>::ERR_WAKE_READER;
  static constexpr long ERR_DAMAGED = -283;  ///< the segment holds impossible values
  static constexpr long ERR_STATE = -284;

  /// Opens the queue.  remove makes this object the owner of the interprocess objects, which it
  /// then removes when it goes; the library never is.  Stays not initialized when anything is
  /// missing or the state is not 0.
  CIPCQueue(const char* name, bool remove);
  ~CIPCQueue();
  CIPCQueue(const CIPCQueue&) = delete;
  CIPCQueue& operator=(const CIPCQueue&) = delete;

  /// True when the queue opened and was running then.
  bool IsInitialized() const { return VInitialized; }
  /// True while the process that created the queue lives.
  bool CreatorAlive() const { return VInitialized && VSharedMemory->CreatorAlive(); }

  /// Waits, without a time limit, for the next reply addressed to id and takes it.
  long Get(const _TIPCIdentifier& id, T& reply);
  /// The worker: index -1 finds the head record by id, any other index reads through that record.
  ///
  /// -272 the wait failed (the set was removed); -274 no head record for a new requester; -276;
  /// -277 the engine cancelled the wait; -278 the index is out of range or not open for reading by
  /// index; -279, -280 a semaphore operation failed; -283; -284 the queue was stopped and nothing
  /// waits in the list; else the code of the lock.
  long PrivateGet(_TIPCIdentifier id, long index, T& reply);
  /// Finds the head record of id, or claims one when create is set; called with the segment locked.
  /// -276, -277 not found, -274 none could be claimed; *head is then null.
  long FindHead(_TIPCIdentifier id, bool create, _TIPCHeadItem** head);

  /// Writes the state; 1 and 2 also wake everybody who waits on the queue.
  long SetState(unsigned long state);
  /// Wakes the waiting writer and every waiting reader; -279, -280, -281.
  long implAwakenAll() { return VSegment.WakeAll(VWakeSet); }
  /// Opens (items 0) or creates (items above 0) the queue's own semaphore set at project 3 of a
  /// path.
  bool implInitialize(const char* path, unsigned short items);
  /// Removes the set when this object owns it.
  void implDestroy();

 private:
  using TItem = TIPCReplyItem<T>;

  bool open(const char* name);
  void refuse();
  void dropSegment();
  bool createSet(int key, unsigned short items);
  bool fillSet(unsigned short items);

  long headForGet(_TIPCIdentifier id, long index, TIPCHeadItem** head);
  long waitAndTake(TIPCHeadItem& head, bool byIndex, T& reply, bool* left);
  long sleepOn(TIPCHeadItem& head, bool* left);
  long cancelled(TIPCHeadItem& head);
  long take(TIPCHeadItem& head, bool byIndex, T& reply);

  uint32_t state() const { return loadShared(VSegment->state); }

  static constexpr const char* GET = "CIPCQueue::Get()";
  static constexpr const char* PRIVATE_GET = "CIPCQueue::PrivateGet()";
  static constexpr const char* CONSTRUCTOR = "CIPCQueue<T>::CIPCQueue(const char*,bool)";
  static constexpr const char* INITIALIZE = "CIPCQueue_LINUX::implInitialize";
  static constexpr long BY_IDENTIFIER = -1;

  bool VInitialized;
  bool VRemove;
  CkesSharedMemory* VSharedMemory;
  CReplySegment<T> VSegment;
  CWakeSet VWakeSet;
};

template <typename T>
CIPCQueue<T>::CIPCQueue(const char* name, bool remove)
    : VInitialized(false), VRemove(remove), VSharedMemory(nullptr), VWakeSet(-1) {
  if (VDebugRun) {
    traceFormat("%s ENTER, name[%s] remove[%d]\n", CONSTRUCTOR, name, static_cast<int>(remove));
  }
  if (!open(name)) return;
  if (VDebugRun) {
    traceFormat("%s EXIT, name[%s] remove[%d] VInitialized[%d]\n", CONSTRUCTOR, name,
                static_cast<int>(remove), static_cast<int>(VInitialized));
  }
}

/// False when the segment could not be opened, which ends construction at once.
template <typename T>
bool CIPCQueue<T>::open(const char* name) {
  VSharedMemory = new (std::nothrow) CkesSharedMemory(name, VRemove);
  const long result = VSharedMemory != nullptr ? VSharedMemory->GetInitResult() : ERR_DAMAGED;
  if (result != 0 && result != CkesSharedMemory::ERR_CREATOR_GONE) {
    if (VDebugRun) {
      traceFormat("%s - ERROR -VSharedMemory->GetInitResult() = %ld\n", CONSTRUCTOR, result);
    }
    return false;
  }
  char path[WAKE_SET_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(name, nullptr, WAKE_SET_PATH_LIMIT, path);
  VSegment = {VSharedMemory->GetAddress(), VSharedMemory->GetSize()};
  VInitialized = implInitialize(path, 0) && VSegment;
  if (VInitialized) {
    if (state() != QUEUE_STATE_RUNNING) refuse();
  } else {
    if (VDebugRun) traceFormat("%s ERROR - VInitialized == 0\n", CONSTRUCTOR);
    dropSegment();
  }
  return true;
}

/// Gives a queue up that is not running.
template <typename T>
void CIPCQueue<T>::refuse() {
  if (VRemove) (void)SetState(QUEUE_STATE_CLOSED);
  (void)VSharedMemory->Lock();
  implDestroy();
  (void)VSharedMemory->Unlock();
  dropSegment();
  VInitialized = false;
}

template <typename T>
void CIPCQueue<T>::dropSegment() {
  delete VSharedMemory;
  VSharedMemory = nullptr;
  VSegment = {};
}

template <typename T>
CIPCQueue<T>::~CIPCQueue() {
  if (VInitialized) {
    if (VRemove) (void)SetState(QUEUE_STATE_CLOSED);
    (void)VSharedMemory->Lock();
    implDestroy();
    (void)VSharedMemory->Unlock();
  }
  dropSegment();
}

template <typename T>
long CIPCQueue<T>::Get(const _TIPCIdentifier& id, T& reply) {
  const long result = PrivateGet(id, BY_IDENTIFIER, reply);
  if (result != 0) (void)CkesErrorManager::AddFunction(GET);
  return result;
}

template <typename T>
long CIPCQueue<T>::PrivateGet(_TIPCIdentifier id, long index, T& reply) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, PRIVATE_GET);
  const long locked = VSharedMemory->Lock();
  if (locked != 0) {
    (void)CkesErrorManager::AddFunction(PRIVATE_GET);
    return locked;
  }
  TIPCHeadItem* head = nullptr;
  bool left = false;
  long result = headForGet(id, index, &head);
  if (result == 0) result = waitAndTake(*head, index != BY_IDENTIFIER, reply, &left);
  if (left) return result;
  const long unlocked = VSharedMemory->Unlock();
  if (unlocked != 0) (void)CkesErrorManager::AddFunction(PRIVATE_GET);
  return result == 0 ? unlocked : CkesErrorManager::Record(result, PRIVATE_GET);
}

template <typename T>
long CIPCQueue<T>::headForGet(_TIPCIdentifier id, long index, TIPCHeadItem** head) {
  if (index == BY_IDENTIFIER) return FindHead(id, true, head);
  if (index < 0 || index >= VSegment.Capacity()) return ERR_INDEX;
  TIPCHeadItem& indexed = VSegment.Head(static_cast<unsigned>(index));
  if (loadShared(indexed.status) != HEAD_INDEXED) return ERR_INDEX;
  *head = &indexed;
  return 0;
}

/// Waits until the head record's list holds a reply and takes it.  Sets *left when the code has
/// been recorded and the segment unlocked already.
template <typename T>
long CIPCQueue<T>::waitAndTake(TIPCHeadItem& head, bool byIndex, T& reply, bool* left) {
  if (loadShared(head.first_reply) == 0 && state() != QUEUE_STATE_RUNNING) return ERR_STATE;
  // Deliberate (waits-once): a thread always waits once, even with a reply linked: the engine
  // raises the semaphore once per reply, so its count matches the list.
  do {
    if (!byIndex) storeShared(head.status, HEAD_WAITING);
    const long result = sleepOn(head, left);
    if (*left) return result;
    const bool empty = loadShared(head.first_reply) == 0;
    if (empty && state() != QUEUE_STATE_RUNNING) return ERR_STATE;
    if (loadShared(head.status) == HEAD_CANCELLED) return cancelled(head);
  } while (loadShared(head.first_reply) == 0);
  return take(head, byIndex, reply);
}

template <typename T>
long CIPCQueue<T>::sleepOn(TIPCHeadItem& head, bool* left) {
  const uint16_t semaphore = loadShared(head.semaphore);
  (void)VSharedMemory->Unlock();
  const bool woken = VWakeSet.Wait(semaphore);
  long result = 0;
  if (state() == QUEUE_STATE_CLOSED) {
    result = ERR_STATE;
  } else {
    result = VSharedMemory->Lock();
    if (result == 0 && !woken) result = ERR_WAIT;
  }
  if (result == 0) return 0;
  (void)CkesErrorManager::Record(result, PRIVATE_GET);
  // Deliberate (unlock-unlocked): unlocked on every such path, locked again or not.  Engines live
  // with an unlock of theirs that fails, and re-create their sets after a stop.
  (void)VSharedMemory->Unlock();
  *left = true;
  return result;
}

template <typename T>
long CIPCQueue<T>::cancelled(TIPCHeadItem& head) {
  if (VWakeSet.Waiters(loadShared(head.semaphore)) == 0) storeShared(head.status, HEAD_IDLE);
  return ERR_NOT_FOUND;
}

template <typename T>
long CIPCQueue<T>::take(TIPCHeadItem& head, bool byIndex, T& reply) {
  const uint32_t offset = loadShared(head.first_reply);
  uint8_t* item = VSegment.BytesAt(offset);
  if (item == nullptr) return ERR_DAMAGED;
  std::memcpy(&reply, item, sizeof(T));
  uint32_t next = 0;
  const uint32_t free = loadShared(VSegment->free_list);
  std::memcpy(&next, item + offsetof(TItem, next), sizeof next);
  std::memcpy(item + offsetof(TItem, next), &free, sizeof free);
  storeShared(head.first_reply, next);
  storeShared(VSegment->free_list, offset);
  const auto used = static_cast<uint16_t>(loadShared(VSegment->used_items) - 1U);
  storeShared(VSegment->used_items, used);

  long result = 0;
  if (!byIndex) {
    const int waiters = VWakeSet.Waiters(loadShared(head.semaphore));
    if (waiters < 0) result = ERR_GETNCNT;
    if (waiters == 0) storeShared(head.status, HEAD_IDLE);
  }
  const bool wasFull = used + 1U == VSegment.Capacity();
  if (wasFull && result == 0 && !VWakeSet.Raise(WAKE_SET_ROOM, 1)) result = ERR_WAKE_WRITER;
  return result;
}

template <typename T>
long CIPCQueue<T>::FindHead(_TIPCIdentifier id, bool create, _TIPCHeadItem** head) {
  *head = nullptr;
  if (!VInitialized) return ERR_NOT_INITIALIZED;
  *head = VSegment.FindOwned(id);
  if (*head != nullptr) return 0;
  if (!create) return ERR_NOT_FOUND;
  *head = VSegment.Claim(id, VWakeSet);
  return *head != nullptr ? 0 : ERR_NO_HEAD;
}

template <typename T>
long CIPCQueue<T>::SetState(unsigned long newState) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CIPCQueue::SetState()");
  return setQueueState(*VSharedMemory, VSegment->state, newState,
                       [this] { return implAwakenAll(); });
}

#include "ipc/CIPCQueue_LINUX.h"
