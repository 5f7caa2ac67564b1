#include "armstat/Picture.h"

#include <cerrno>
#include <utility>

#include "armstat/Processes.h"
#include "ipc/EngineObjects.h"

namespace armstat {

namespace {

constexpr uint32_t VERSION = ARM_QUEUE_VERSION;

bool isForbidden(const ObjectBase& object) {
  return object.error == EACCES || object.error == EPERM;
}

/// The creator of the queues as their lock sets know it, else the one that made the segment: a
/// segment can be older than its creator.
pid_t creatorOf(const Objects& objects) {
  for (const SemaphoreSet* set : {&objects.request_lock, &objects.reply_lock}) {
    if (set->value(LOCK_SET_CREATOR).value_or(0) == 0) continue;
    if (const pid_t process = set->lastProcess(LOCK_SET_CREATOR); process != 0) return process;
  }
  return objects.requests.creator;
}

EngineState stateOf(const Picture& picture) {
  const EngineState state = stateByCreators(picture.objects);
  if (state != EngineState::serving) return state;
  if (picture.requests.copy == Copy::none || picture.replies.copy == Copy::none) {
    return EngineState::unknown;
  }
  if (picture.requests.header.state != 0 || picture.replies.header.state != 0) {
    return EngineState::stopped;
  }
  return picture.requests.header.ready_for_io != 0 ? EngineState::serving : EngineState::starting;
}

Requester describe(const Picture& picture, unsigned index) {
  Requester one;
  one.index = index;
  one.record = picture.replies.heads[index];
  one.pending = follow(picture.replies, one.record.first_reply);
  const SemaphoreSet& wake = picture.objects.wake;
  one.raised = wake.value(one.record.semaphore);
  one.waiters = wake.waiters(one.record.semaphore);
  one.process_lives = processLives(one.record.process_id);
  one.process_name = processName(one.record.process_id);
  if (one.process_lives)
    one.thread_lives = threadLives(one.record.process_id, one.record.thread_id);
  return one;
}

bool isOwned(const TIPCHeadItem& head) {
  return head.process_id != NULL_IPC_ID.processId || head.thread_id != NULL_IPC_ID.threadId;
}

std::string amount(unsigned number, const char* of) {
  return std::to_string(number) + " " + of;
}

void addDamage(std::vector<Oddity>* oddities, std::string text) {
  oddities->push_back({Oddity::Kind::damage, std::move(text)});
}

void findRequestOddities(const RequestQueue& queue, std::vector<Oddity>* oddities) {
  if (queue.copy == Copy::none) return;
  const TRequestQueueHeader& header = queue.header;
  const unsigned capacity = queue.capacity;
  if (capacity == 0) {
    addDamage(oddities, "the request segment has no room for a request");
  } else if (header.count > capacity || header.head >= capacity || header.tail >= capacity) {
    addDamage(oddities, "the request ring's count or slot numbers lie outside its " +
                            amount(capacity, "slots"));
  } else if ((header.head + unsigned{header.count}) % capacity != header.tail) {
    addDamage(oddities, "the request ring's count does not fit its head and tail");
  }
  if (header.arm_version != VERSION) {
    oddities->push_back({Oddity::Kind::version, "the version word is " +
                                                    std::to_string(header.arm_version) + ", not " +
                                                    std::to_string(VERSION)});
  }
}

void findReplyOddities(const Picture& picture, std::vector<Oddity>* oddities) {
  const ReplyQueue& queue = picture.replies;
  if (queue.copy == Copy::none) return;
  if (queue.capacity == 0) addDamage(oddities, "the reply segment has no room for a requester");
  unsigned pending = 0;
  for (const Requester& one : picture.requesters) {
    pending += one.pending.length;
    const std::string record = "head record " + std::to_string(one.index);
    if (!one.pending.sound) addDamage(oddities, record + ": its list of replies is damaged");
    if (one.record.semaphore < WAKE_SET_FIRST_HEAD ||
        one.record.semaphore >= queue.capacity + WAKE_SET_FIRST_HEAD) {
      addDamage(oddities, record + ": it has the impossible semaphore " +
                              std::to_string(one.record.semaphore));
    }
  }
  if (!picture.free_items.sound) addDamage(oddities, "the list of free items is damaged");
  if (queue.header.used_items != pending) {
    addDamage(oddities, "the reply queue counts " + amount(queue.header.used_items, "replies") +
                            ", its lists hold " + std::to_string(pending));
  }
  if (queue.header.heads_in_use != picture.requesters.size()) {
    addDamage(oddities, "the reply queue counts " +
                            amount(queue.header.heads_in_use, "requesters") +
                            ", its records name " + std::to_string(picture.requesters.size()));
  }
}

}  // namespace

const char* nameOf(EngineState state) {
  switch (state) {
    case EngineState::none:
      return "none";
    case EngineState::starting:
      return "starting";
    case EngineState::serving:
      return "serving";
    case EngineState::stopped:
      return "stopped";
    case EngineState::dead:
      return "dead";
    case EngineState::unknown:
      return "unknown";
  }
  return "unknown";
}

const char* nameOf(Copy copy) {
  switch (copy) {
    case Copy::none:
      return "none";
    case Copy::steady:
      return "steady";
    case Copy::torn:
      return "torn";
    case Copy::locked:
      return "locked";
  }
  return "none";
}

const char* nameOfStatus(uint8_t status) {
  switch (status) {
    case HEAD_IDLE:
      return "idle";
    case HEAD_WAITING:
      return "waiting";
    case HEAD_INDEXED:
      return "by index";
    case HEAD_CANCELLED:
      return "cancelled";
    default:
      return "unknown";
  }
}

const char* nameOfQueueState(uint32_t state) {
  switch (state) {
    case QUEUE_STATE_RUNNING:
      return "running";
    case QUEUE_STATE_STOPPED:
      return "stopped";
    case QUEUE_STATE_CLOSED:
      return "closed";
    default:
      return "unknown";
  }
}

EngineState stateByCreators(const Objects& objects) {
  if (!objects.any()) {
    return isForbidden(objects.requests) ? EngineState::unknown : EngineState::none;
  }
  bool living = true;
  for (const SemaphoreSet* set : {&objects.request_lock, &objects.reply_lock}) {
    const auto creator = set->value(LOCK_SET_CREATOR);
    if (creator == CREATOR_EXITED) return EngineState::dead;
    if (!creator && set->exists()) return EngineState::unknown;
    living = living && creator >= CREATOR_LIVES;
  }
  return living ? EngineState::serving : EngineState::starting;
}

Picture takePicture(Manner manner) {
  Picture picture;
  picture.prefix = prefixInForce();
  picture.objects = findObjects();
  picture.requests = copyRequests(picture.objects, manner);
  picture.replies = copyReplies(picture.objects, manner);
  for (unsigned i = 0; i < picture.replies.heads.size(); ++i) {
    if (isOwned(picture.replies.heads[i])) picture.requesters.push_back(describe(picture, i));
  }
  picture.free_items = follow(picture.replies, picture.replies.header.free_list);
  picture.engine.state = stateOf(picture);
  if (picture.objects.any()) picture.engine.process = creatorOf(picture.objects);
  picture.engine.name = processName(picture.engine.process);
  if (picture.requests.copy != Copy::torn) {
    findRequestOddities(picture.requests, &picture.oddities);
  }
  if (picture.replies.copy != Copy::torn) findReplyOddities(picture, &picture.oddities);
  return picture;
}

}  // namespace armstat
