#include "core/ReplyWriter.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"
#include "ipc/queuestate.h"
#include "platform/sharedword.h"
#include "system/NameFiles.h"

namespace armengine {

ReplyWriter::ReplyWriter(uint16_t requesters)
    : memory_(REPLY_QUEUE_NAME, replyQueueSize<TArmReplyMessage>(requesters), true) {
  if (!memory_.IsInitialized() || !createSet(requesters)) return;
  segment_ = {memory_.GetAddress(), memory_.GetSize()};
  lists_.layOut(segment_, wake_);
}

ReplyWriter::~ReplyWriter() {
  // Without the lock: readers that an earlier stop has woken give back what they have not taken, so
  // that it may stay taken for ever once they have exited.  The end of the set wakes the waiters.
  if (isInitialized()) storeShared(segment_->state, QUEUE_STATE_CLOSED);
  if (wake_.Id() != -1) (void)wake_.Remove();
}

bool ReplyWriter::createSet(uint16_t requesters) {
  const key_t key =
      ftok(objectPath(REPLY_QUEUE_NAME, WAKE_SET_PATH_LIMIT).c_str(), WAKE_SET_PROJECT);
  if (key == -1) return false;
  const int semaphores = requesters + WAKE_SET_FIRST_HEAD;
  wake_ = CWakeSet(semget(key, semaphores, OBJECT_ACCESS | IPC_CREAT | IPC_EXCL));
  if (wake_.Id() == -1) return false;
  std::vector<unsigned short> zeros(static_cast<std::size_t>(semaphores), 0);
  zeros[WAKE_SET_INITIALIZED] = 1;
  return wake_.SetAll(zeros.data());
}

Delivery ReplyWriter::putToWaiting(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
  Outgoing one = {to, reply, Delivery::failed};
  putAll(To::waiting, &one, 1);
  return one.delivery;
}

void ReplyWriter::putAllUnlessCrowded(Outgoing* replies, std::size_t count) {
  putAll(To::anybody, replies, count);
}

void ReplyWriter::putAll(To whom, Outgoing* replies, std::size_t count) {
  if (count == 0) return;
  Semaphores due;
  due.reserve(count);
  const bool locked = memory_.Lock() == 0;
  for (std::size_t i = 0; i < count; ++i) {
    replies[i].delivery = locked ? putOrRepair(whom, replies[i], &due) : Delivery::failed;
  }
  if (locked) (void)memory_.Unlock();
  raiseAll(due);
}

Delivery ReplyWriter::putOrRepair(To whom, const Outgoing& reply, Semaphores* due) {
  const Delivery delivery = putLocked(whom, reply, due);
  if (delivery == Delivery::linked || delivery == Delivery::no_head) return delivery;
  (void)lists_.releaseDeparted();
  lists_.rebuild();
  return putLocked(whom, reply, due);
}

Delivery ReplyWriter::putLocked(To whom, const Outgoing& reply, Semaphores* due) {
  TIPCHeadItem* record = headFor(whom, reply.to);
  if (record == nullptr) return Delivery::no_head;
  const auto semaphore = lists_.semaphoreOf(*record);
  if (!semaphore) return Delivery::failed;
  const ReplyLists::Linked linked = lists_.link(*record, reply.reply);
  if (linked == ReplyLists::Linked::no_item) return Delivery::no_item;
  if (linked == ReplyLists::Linked::damaged) return Delivery::failed;
  due->push_back(*semaphore);
  return Delivery::linked;
}

/// The requester's head record, found or claimed; null when it is to have none.
TIPCHeadItem* ReplyWriter::headFor(To whom, const TIPCIdentifier& owner) {
  // Free records carry this identifier, and would be found.
  if (CIPCUtils::sameIPCIdentifiers(owner, NULL_IPC_ID)) return nullptr;
  if (whom == To::anybody && isCrowded()) return nullptr;
  TIPCHeadItem* record = lists_.head(owner, whom != To::waiting);
  if (record == nullptr) return nullptr;
  const bool suits = whom != To::waiting || loadShared(record->status) == HEAD_WAITING;
  return suits ? record : nullptr;
}

bool ReplyWriter::isWaiting(const TIPCIdentifier& requester) {
  if (memory_.Lock() != 0) return false;
  const bool waits = headFor(To::waiting, requester) != nullptr;
  (void)memory_.Unlock();
  return waits;
}

void ReplyWriter::setState(uint32_t state) {
  (void)setQueueState(memory_, segment_->state, state, [this] { return segment_.WakeAll(wake_); });
}

unsigned ReplyWriter::reclaimDeparted() {
  return reclaim(&ReplyLists::releaseDeparted);
}

unsigned ReplyWriter::reclaimIdle() {
  return reclaim(&ReplyLists::releaseIdle);
}

unsigned ReplyWriter::reclaim(unsigned (ReplyLists::*release)()) {
  if (memory_.Lock() != 0) return 0;
  const unsigned released = (lists_.*release)();
  // Rebuilding touches every item, so it is done only when something is wrong.
  if (released > 0 || !lists_.agree()) lists_.rebuild();
  (void)memory_.Unlock();
  return released;
}

/// Raises semaphores, those of many requesters in one operation.  When that fails, since one of
/// them stands at its limit or the kernel accepts fewer at once, each is raised for itself: a
/// requester whose semaphore cannot rise for its height is awake, and those of a removed set have
/// been sent away.
void ReplyWriter::raiseAll(const Semaphores& semaphores) {
  constexpr std::size_t MOST = 64;
  sembuf operations[MOST];
  for (std::size_t from = 0; from < semaphores.size(); from += MOST) {
    const std::size_t count = std::min(semaphores.size() - from, MOST);
    for (std::size_t i = 0; i < count; ++i) operations[i] = {semaphores[from + i], 1, 0};
    if (semop(wake_.Id(), operations, count) == 0) continue;
    for (std::size_t i = 0; i < count; ++i) (void)wake_.Raise(operations[i].sem_num, 1);
  }
}

}  // namespace armengine
