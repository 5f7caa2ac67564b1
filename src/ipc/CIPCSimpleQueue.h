#pragma once

#include <cstdio>
#include <cstring>
#include <new>

#include "diag/CkesErrorManager.h"
#include "diag/traceformat.h"
#include "ipc/CRequestSegment.h"
#include "ipc/EngineObjects.h"
#include "ipc/RequestQueueLayout.h"
#include "ipc/queuestate.h"
#include "platform/CkesSemaphore.h"
#include "platform/CkesSharedMemory.h"
#include "platform/sharedword.h"

/// The writer's end of the request queue: a bounded ring of records of type T in a shared segment
/// that the engine creates and reads (RequestQueueLayout.h).
///
/// Results are 0 or a negative code, also recorded with the error manager.  Any number of threads
/// of any number of processes may put at once: every change of the ring is made under the segment's
/// lock, which is never held while a writer waits for room.  The object itself is fixed after
/// opening.
template <typename T>
class CIPCSimpleQueue {
 public:
  static constexpr long ERR_FULL = -274;
  static constexpr long ERR_NOT_INITIALIZED = -276;
  static constexpr long ERR_DAMAGED = -283;  ///< the segment holds impossible values
  static constexpr long ERR_STATE = -284;

  /// Opens the queue of a base name: the segment name + "_mem" and the semaphores name + "_ovr" and
  /// name + "_emp".  Writes the version word whatever the queue's state, and stays not initialized
  /// when anything is missing or the state is not 0.  A creator that has exited is no reason to
  /// refuse.
  explicit CIPCSimpleQueue(const char* name);
  /// An owner empties and closes the queue first; others leave the shared queue as it is.
  ~CIPCSimpleQueue();
  CIPCSimpleQueue(const CIPCSimpleQueue&) = delete;
  CIPCSimpleQueue& operator=(const CIPCSimpleQueue&) = delete;

  /// True when the queue opened and was running then.
  bool IsInitialized() const { return VInitialized; }
  /// True while the process that created the queue lives.
  bool CreatorAlive() const { return VInitialized && VSharedMemory->CreatorAlive(); }
  /// A number that tells the queue's creator from its predecessors and successors.
  int CreatorId() const { return VInitialized ? VSharedMemory->GetSetId() : -1; }
  /// True once the engine reads the queue.
  bool IsReadyForIO() const { return VSegment && loadShared(VSegment->ready_for_io) != 0; }
  /// The version word, 0 without a segment.
  unsigned long GetArmVersion() const { return VSegment ? loadShared(VSegment->arm_version) : 0; }
  /// Whether Put waits while the queue is full.
  void SetOverflowWait(bool wait) { VOverflowWait = wait; }

  /// Appends a record at the tail.  -274 when the queue is full and does not wait, -276, -283,
  /// -284, or the code of the lock or of the wait.
  long Put(const T& record) { return Put(record, sizeof(T)); }
  /// Put for a record of which only the first used bytes are set: the slot gets zeros for the rest.
  long Put(const T& record, std::size_t used);
  /// The worker of Put; front inserts before the oldest record instead.
  long PrivatePut(const T& record, bool front) { return PrivatePut(record, sizeof(T), front); }
  /// The same for a record of which only the first used bytes are set.
  long PrivatePut(const T& record, std::size_t used, bool front);
  /// Called with the segment locked, and returns with it locked: waits for room, or refuses with
  /// -274.
  long CheckOverflow(bool wait);

  /// Writes the state; 1 and 2 also wake everybody who waits on the queue.
  long SetState(unsigned long state);
  /// Empties the queue and wakes the writers that wait for room.
  long Cleanup();

 private:
  bool open(const char* name);
  bool openSegment(const char* name);
  void closeAll();
  bool place(const T& record, std::size_t used, bool front);
  TRingPosition placeAtTail(TRingPosition ring, const T& record, std::size_t used);
  TRingPosition placeAtHead(TRingPosition ring, const T& record, std::size_t used);
  void copyToSlot(uint16_t slot, const T& record, std::size_t used);
  void wakeOrDrain(uint16_t now);
  uint32_t state() const { return loadShared(VSegment->state); }
  uint16_t count() const { return loadShared(VSegment->count); }

  static constexpr const char* PUT = "CIPCSimpleQueue<T>::Put()";
  static constexpr const char* PRIVATE_PUT = "CIPCSimpleQueue<T>::PrivatePut()";
  /// Deliberate (other-queues-name): the name of the other queue's class.  Readers of error trails
  /// know it so.
  static constexpr const char* CHECK_OVERFLOW = "CIPCQueue::CheckOverflow()";
  static constexpr const char* SET_STATE = "CIPCSimpleQueue<T>::SetState()";
  static constexpr const char* CLEANUP = "CIPCSimpleQueue<T>::Cleanup()";

  bool VInitialized;
  CkesSharedMemory* VSharedMemory;
  CRequestSegment<T> VSegment;
  bool VOverflowWait;
  CkesSemaphore* VEmptySem;
  CkesSemaphore* VOverflowSem;
  bool VOwner;
};

template <typename T>
CIPCSimpleQueue<T>::CIPCSimpleQueue(const char* name)
    : VInitialized(false),
      VSharedMemory(nullptr),
      VOverflowWait(false),
      VEmptySem(nullptr),
      VOverflowSem(nullptr),
      VOwner(false) {
  VInitialized = open(name);
  if (!VInitialized) closeAll();
}

template <typename T>
CIPCSimpleQueue<T>::~CIPCSimpleQueue() {
  if (!VInitialized) return;
  if (VOwner) {
    (void)Cleanup();
    (void)SetState(QUEUE_STATE_CLOSED);
  }
  delete VSharedMemory;
  delete VOverflowSem;
  delete VEmptySem;
}

template <typename T>
bool CIPCSimpleQueue<T>::open(const char* name) {
  char path[1024];
  (void)std::snprintf(path, sizeof path, "%s%s", name, OVERFLOW_SUFFIX);
  VOverflowSem = new (std::nothrow) CkesSemaphore(path);
  if (VOverflowSem == nullptr || !VOverflowSem->IsInitialized()) {
    traceText("CIPCSimpleQueue Failed on VOverflowSem\n");
    return false;
  }
  (void)std::snprintf(path, sizeof path, "%s%s", name, EMPTY_SUFFIX);
  VEmptySem = new (std::nothrow) CkesSemaphore(path);
  if (VEmptySem == nullptr || !VEmptySem->IsInitialized()) {
    traceText("CIPCSimpleQueue Failed on the empty queue wait sem\n");
    return false;
  }
  (void)std::snprintf(path, sizeof path, "%s%s", name, SEGMENT_SUFFIX);
  if (!openSegment(path)) {
    traceText("CIPCSimpleQueue Failed on the shared memory\n");
    return false;
  }
  // An engine that has come up meanwhile: with the semaphores of the one before it, posts would
  // wake nobody, and draining would never end.
  if (!VOverflowSem->IsThere() || !VEmptySem->IsThere()) {
    traceText("CIPCSimpleQueue Failed on replaced semaphores\n");
    return false;
  }
  // Deliberate (version-first): written by every opener, without the lock and before the state is
  // looked at.
  storeShared(VSegment->arm_version, ARM_QUEUE_VERSION);
  if (state() != QUEUE_STATE_RUNNING) {
    traceText("CIPCSimpleQueue VQueueState is bad\n");
    return false;
  }
  return true;
}

template <typename T>
bool CIPCSimpleQueue<T>::openSegment(const char* name) {
  VSharedMemory = new (std::nothrow) CkesSharedMemory(name, false);
  if (VSharedMemory == nullptr) return false;
  const long result = VSharedMemory->GetInitResult();
  // Deliberate (dead-creator-opens): a dead creator does not keep the queue from opening; it shows
  // in CreatorAlive.
  if (result != 0 && result != CkesSharedMemory::ERR_CREATOR_GONE) return false;
  VSegment = {VSharedMemory->GetAddress(), VSharedMemory->GetSize()};
  return static_cast<bool>(VSegment);
}

template <typename T>
void CIPCSimpleQueue<T>::closeAll() {
  delete VOverflowSem;
  delete VEmptySem;
  delete VSharedMemory;
  VOverflowSem = nullptr;
  VEmptySem = nullptr;
  VSharedMemory = nullptr;
  VSegment = {};
}

template <typename T>
long CIPCSimpleQueue<T>::Put(const T& message, std::size_t used) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, PUT);
  const long result = PrivatePut(message, used, false);
  if (result != 0) (void)CkesErrorManager::AddFunction(PUT);
  return result;
}

template <typename T>
long CIPCSimpleQueue<T>::PrivatePut(const T& message, std::size_t used, bool front) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, PRIVATE_PUT);
  long result = VSharedMemory->Lock();
  if (result != 0) {
    (void)CkesErrorManager::AddFunction(PRIVATE_PUT);
    return result;
  }
  if (state() != QUEUE_STATE_RUNNING) {
    result = CkesErrorManager::Record(ERR_STATE, PRIVATE_PUT);
  } else if ((result = CheckOverflow(VOverflowWait)) != 0) {
    (void)CkesErrorManager::AddFunction(PRIVATE_PUT);
  } else if (!place(message, used, front)) {
    result = CkesErrorManager::Record(ERR_DAMAGED, PRIVATE_PUT);
  }
  const long unlocked = VSharedMemory->Unlock();
  if (unlocked == 0) return result;
  (void)CkesErrorManager::AddFunction(PRIVATE_PUT);
  return unlocked;
}

/// Copies the record into its slot, moves the position and wakes whom that concerns; false when the
/// segment holds what cannot be.
template <typename T>
bool CIPCSimpleQueue<T>::place(const T& message, std::size_t used, bool front) {
  const TRingPosition ring = VSegment.Position();
  if (VSegment.IsDamaged(ring)) return false;
  const TRingPosition next =
      front ? placeAtHead(ring, message, used) : placeAtTail(ring, message, used);
  if (!VSegment.Move(next)) return false;
  wakeOrDrain(next.count);
  return true;
}

template <typename T>
void CIPCSimpleQueue<T>::copyToSlot(uint16_t slot, const T& message, std::size_t used) {
  uint8_t* target = VSegment.Slot(slot);
  std::memcpy(target, &message, used);
  std::memset(target + used, 0, sizeof(T) - used);
}

template <typename T>
TRingPosition CIPCSimpleQueue<T>::placeAtTail(TRingPosition ring, const T& message,
                                              std::size_t used) {
  copyToSlot(ring.tail, message, used);
  ring.tail = VSegment.After(ring.tail);
  ++ring.count;
  return ring;
}

template <typename T>
TRingPosition CIPCSimpleQueue<T>::placeAtHead(TRingPosition ring, const T& message,
                                              std::size_t used) {
  if (ring.count == 0) {
    ring.tail = VSegment.After(ring.tail);
  } else {
    ring.head = VSegment.Before(ring.head);
  }
  copyToSlot(ring.head, message, used);
  ++ring.count;
  return ring;
}

/// After a put: wakes the reader of a queue that was empty; else drains the overflow semaphore of
/// one that is full now, so that the next writer that has to wait really blocks.
template <typename T>
void CIPCSimpleQueue<T>::wakeOrDrain(uint16_t now) {
  if (now == 1) {
    (void)VEmptySem->Post(1);
  } else if (now == VSegment.Capacity()) {
    // Deliberate (endless-drain): only "nothing left" ends this; any other result repeats it.
    while (VOverflowSem->TryWait() != CkesSemaphore::ERR_WOULD_BLOCK) {
    }
  }
}

template <typename T>
long CIPCSimpleQueue<T>::CheckOverflow(bool wait) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, CHECK_OVERFLOW);
  long result = 0;
  bool waited = false;
  bool unlocked = false;
  // Deliberate (unlocked-count): the second and later tests of the count, and the counting of a
  // further pass, are made without the lock.
  while (count() == VSegment.Capacity()) {
    if (!wait) {
      result = CkesErrorManager::Record(ERR_FULL, CHECK_OVERFLOW);
      break;
    }
    storeShared(VSegment->overflow_waiters, loadShared(VSegment->overflow_waiters) + 1U);
    waited = true;
    if (!unlocked) {
      result = VSharedMemory->Unlock();
      if (result != 0) {
        (void)CkesErrorManager::AddFunction(CHECK_OVERFLOW);
        break;
      }
      unlocked = true;
    }
    result = VOverflowSem->Wait(0);
    if (result != 0) {
      (void)CkesErrorManager::Record(result, CHECK_OVERFLOW);
      break;
    }
    if (state() != QUEUE_STATE_RUNNING) {
      result = CkesErrorManager::Record(ERR_STATE, CHECK_OVERFLOW);
      break;
    }
  }
  if (unlocked) {
    const long locked = VSharedMemory->Lock();
    if (locked != 0 && result == 0) {
      (void)CkesErrorManager::AddFunction(CHECK_OVERFLOW);
      result = locked;
    } else if (locked != 0) {
      (void)CkesErrorManager::Record(result, CHECK_OVERFLOW);
    }
  }
  // Deliberate (lowered-once): lowered once, however many passes were made; every further pass
  // leaves it one too high.
  if (waited) storeShared(VSegment->overflow_waiters, loadShared(VSegment->overflow_waiters) - 1U);
  return result;
}

template <typename T>
long CIPCSimpleQueue<T>::SetState(unsigned long newState) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, SET_STATE);
  const long result = setQueueState(*VSharedMemory, VSegment->state, newState,
                                    [this] { return VSegment.WakeAll(*VEmptySem, *VOverflowSem); });
  if (result != 0) (void)CkesErrorManager::AddFunction(SET_STATE);
  return result;
}

template <typename T>
long CIPCSimpleQueue<T>::Cleanup() {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, CLEANUP);
  long result = VSharedMemory->Lock();
  if (result == 0) {
    storeShared(VSegment->count, uint16_t{0});
    storeShared(VSegment->head, uint16_t{0});
    storeShared(VSegment->tail, uint16_t{0});
    (void)VEmptySem->TryWait();
    for (uint32_t waiters = loadShared(VSegment->overflow_waiters); waiters > 0; --waiters) {
      (void)VOverflowSem->Post(1);
    }
    result = VSharedMemory->Unlock();
  }
  if (result != 0) (void)CkesErrorManager::AddFunction(CLEANUP);
  return result;
}
