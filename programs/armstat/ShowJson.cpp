#include <cstring>
#include <nlohmann/json.hpp>

#include "armstat/Show.h"
#include "ipc/EngineObjects.h"

namespace armstat {

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json processOrNull(pid_t process) {
  return process > 0 ? Json(process) : Json(nullptr);
}

Json base(const ObjectBase& object) {
  Json json = {{"path", object.path}, {"project", object.project}};
  json["key"] = object.has_name ? Json(static_cast<uint32_t>(object.key)) : Json(nullptr);
  json["id"] = object.exists() ? Json(object.id) : Json(nullptr);
  json["error"] = object.error != 0 ? Json(std::strerror(object.error)) : Json(nullptr);
  if (!object.exists()) return json;
  json["owner"] = object.owner;
  json["mode"] = object.mode;
  return json;
}

Json segment(const Segment& one) {
  Json json = base(one);
  if (!one.exists()) return json;
  json["size"] = one.size;
  json["attached"] = one.attached;
  json["creator"] = processOrNull(one.creator);
  return json;
}

Json set(const SemaphoreSet& one) {
  Json json = base(one);
  if (one.exists()) json["semaphores"] = one.count;
  return json;
}

Json lockSet(const SemaphoreSet& one) {
  Json json = set(one);
  json["lock"] = orNull(one.value(LOCK_SET_LOCK));
  json["lock_last_process"] = processOrNull(one.lastProcess(LOCK_SET_LOCK));
  json["creator"] = orNull(one.value(LOCK_SET_CREATOR));
  json["creator_process"] = processOrNull(one.lastProcess(LOCK_SET_CREATOR));
  return json;
}

Json countingSet(const SemaphoreSet& one) {
  Json json = set(one);
  json["count"] = orNull(one.value(COUNTING_SET_COUNT));
  json["maximum"] = orNull(one.value(COUNTING_SET_MAXIMUM));
  json["waiters"] = orNull(one.waiters(COUNTING_SET_COUNT));
  return json;
}

Json requestQueue(const Picture& picture) {
  const RequestQueue& queue = picture.requests;
  Json json = {{"segment", segment(picture.objects.requests)},
               {"lock_set", lockSet(picture.objects.request_lock)},
               {"empty_semaphore", countingSet(picture.objects.empty)},
               {"overflow_semaphore", countingSet(picture.objects.overflow)},
               {"copy", nameOf(queue.copy)}};
  if (queue.copy == Copy::none) return json;
  json["capacity"] = queue.capacity;
  json["depth"] = queue.header.count;
  json["head"] = queue.header.head;
  json["tail"] = queue.header.tail;
  json["state"] = queue.header.state;
  json["overflow_waiters"] = queue.header.overflow_waiters;
  json["empty_waiters"] = queue.header.empty_waiters;
  json["version"] = queue.header.arm_version;
  json["ready"] = queue.header.ready_for_io;
  return json;
}

Json requester(const Requester& one) {
  return {{"record", one.index},
          {"status", nameOfStatus(one.record.status)},
          {"status_value", one.record.status},
          {"semaphore", one.record.semaphore},
          {"raised", orNull(one.raised)},
          {"waiters", orNull(one.waiters)},
          {"process", one.record.process_id},
          {"process_name", one.process_name},
          {"process_lives", one.process_lives},
          {"thread", one.record.thread_id},
          {"thread_lives", orNull(one.thread_lives)},
          {"pending_replies", one.pending.length},
          {"list_sound", one.pending.sound}};
}

Json replyQueue(const Picture& picture) {
  const ReplyQueue& queue = picture.replies;
  Json json = {{"segment", segment(picture.objects.replies)},
               {"lock_set", lockSet(picture.objects.reply_lock)},
               {"wake_set", set(picture.objects.wake)},
               {"copy", nameOf(queue.copy)}};
  if (queue.copy == Copy::none) return json;
  json["capacity"] = queue.capacity;
  json["used_items"] = queue.header.used_items;
  json["heads_in_use"] = queue.header.heads_in_use;
  json["free_items"] = picture.free_items.length;
  json["state"] = queue.header.state;
  json["requesters"] = Json::array();
  for (const Requester& one : picture.requesters) json["requesters"].push_back(requester(one));
  return json;
}

}  // namespace

std::string asJson(const Picture& picture, bool pretty) {
  Json oddities = Json::array();
  for (const Oddity& oddity : picture.oddities) oddities.push_back(oddity.text);
  Json json = {{"prefix", orNull(picture.prefix)},
               {"engine",
                {{"state", nameOf(picture.engine.state)},
                 {"process", processOrNull(picture.engine.process)},
                 {"name", picture.engine.name}}},
               {"request_queue", requestQueue(picture)},
               {"reply_queue", replyQueue(picture)},
               {"oddities", oddities}};
  // Names and paths are bytes of other people: what is no UTF-8 is replaced.
  return json.dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace armstat
