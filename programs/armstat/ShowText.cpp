#include <pwd.h>

#include <cstdio>
#include <cstring>

#include "armstat/Processes.h"
#include "armstat/Show.h"
#include "common/Words.h"
#include "ipc/EngineObjects.h"
#include "text/Columns.h"

namespace armstat {

namespace {

constexpr std::size_t NAME_COLUMNS = 24;

std::string hexadecimal(uint32_t number, int digits) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%0*x", digits, number);
  return text;
}

std::string permissions(unsigned mode) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "%04o", mode);
  return text;
}

std::string userName(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry != nullptr ? armtext::printable(entry->pw_name, NAME_COLUMNS) : std::to_string(user);
}

std::string processText(pid_t process, const std::string& name) {
  if (process <= 0) return "unknown";
  const std::string number = std::to_string(process);
  return name.empty() ? number : number + " " + armtext::printable(name, NAME_COLUMNS);
}

std::string orDash(const std::optional<unsigned>& number) {
  return number ? std::to_string(*number) : "-";
}

const char* yesNo(const std::optional<bool>& answer) {
  if (!answer) return "-";
  return *answer ? "yes" : "no";
}

std::string engineLine(const Picture& picture) {
  std::string line = "engine    ";
  line += nameOf(picture.engine.state);
  if (picture.engine.state == EngineState::none) return line + " (" + prefixInWords() + ")\n";
  line += ", process " + processText(picture.engine.process, picture.engine.name);
  if (picture.engine.process > 0 && picture.engine.state != EngineState::dead &&
      !processLives(picture.engine.process)) {
    line += " (not visible from here)";
  }
  return line + " (" + prefixInWords() + ")\n";
}

std::string stateText(uint32_t state) {
  return std::string(nameOfQueueState(state)) + " (" + std::to_string(state) + ")";
}

std::string copyNote(Copy copy) {
  return copy == Copy::torn ? ", torn: it changed while it was copied, see --consistent" : "";
}

std::string requestLines(const RequestQueue& queue, const Objects& objects) {
  if (queue.copy == Copy::none) return "";
  const TRequestQueueHeader& header = queue.header;
  std::string text =
      "requests  " + std::to_string(header.count) + " of " + std::to_string(queue.capacity) +
      " slots used, head " + std::to_string(header.head) + ", tail " + std::to_string(header.tail) +
      ", " + stateText(header.state) + (header.ready_for_io != 0 ? ", ready" : ", not ready") +
      ", version " + std::to_string(header.arm_version) + copyNote(queue.copy) + "\n";
  text += "          waiting: " + std::to_string(header.empty_waiters) + " for requests (" +
          orDash(objects.empty.waiters(COUNTING_SET_COUNT)) + " on the semaphore), " +
          std::to_string(header.overflow_waiters) + " for room (" +
          orDash(objects.overflow.waiters(COUNTING_SET_COUNT)) + ")\n";
  return text;
}

std::string replyLines(const Picture& picture) {
  const ReplyQueue& queue = picture.replies;
  if (queue.copy == Copy::none) return "";
  return "replies   " + std::to_string(queue.header.used_items) + " of " +
         std::to_string(queue.capacity) + " items used, " +
         std::to_string(queue.header.heads_in_use) + " of " + std::to_string(queue.capacity) +
         " requesters, " + std::to_string(picture.free_items.length) + " items free, " +
         stateText(queue.header.state) + copyNote(queue.copy) + "\n";
}

std::string contentOf(const ObjectBase& object, const Picture& picture) {
  if (object.error != 0) return std::strerror(object.error);
  for (const SemaphoreSet* set : {&picture.objects.request_lock, &picture.objects.reply_lock}) {
    if (set != &object) continue;
    const unsigned creator = set->value(LOCK_SET_CREATOR).value_or(0);
    std::string text = set->value(LOCK_SET_LOCK) == 0U
                           ? "free"
                           : "held by " + processText(set->lastProcess(LOCK_SET_LOCK),
                                                      processName(set->lastProcess(LOCK_SET_LOCK)));
    text += creator >= CREATOR_LIVES    ? ", creator lives"
            : creator == CREATOR_EXITED ? ", creator has exited"
                                        : ", not initialised";
    return text;
  }
  for (const SemaphoreSet* set : {&picture.objects.empty, &picture.objects.overflow}) {
    if (set == &object) {
      return "count " + orDash(set->value(COUNTING_SET_COUNT)) + " of at most " +
             orDash(set->value(COUNTING_SET_MAXIMUM));
    }
  }
  for (const Segment* segment : picture.objects.segments()) {
    if (segment != &object) continue;
    return armtools::counted(segment->attached, "attachment") + ", made by process " +
           processText(segment->creator, processName(segment->creator));
  }
  const bool initialised = picture.objects.wake.value(WAKE_SET_INITIALIZED).value_or(0) != 0;
  return initialised ? "initialised" : "not initialised";
}

std::string sizeOf(const ObjectBase& object, const Objects& objects) {
  if (!object.exists()) return "-";
  for (const Segment* segment : objects.segments()) {
    if (segment == &object) return std::to_string(segment->size) + " bytes";
  }
  return std::to_string(static_cast<const SemaphoreSet&>(object).count) + " semaphores";
}

std::string objectTable(const Picture& picture) {
  armtext::Table table("llrrlll");
  table.add({"object", "key", "id", "size", "owner", "mode", "content"});
  for (const ObjectBase* object : picture.objects.all()) {
    const bool known = object->exists();
    table.add({object->what,
               object->has_name ? hexadecimal(static_cast<uint32_t>(object->key), 8) : "-",
               known ? std::to_string(object->id) : "-", sizeOf(*object, picture.objects),
               known ? userName(object->owner) : "-", known ? permissions(object->mode) : "-",
               contentOf(*object, picture)});
  }
  return table.text();
}

std::string requesterTable(const Picture& picture) {
  if (picture.requesters.empty()) return "";
  armtext::Table table("rlrrrlllll");
  table.add(
      {"record", "status", "replies", "raised", "waiters", "process", "lives", "thread", "lives"});
  for (const Requester& one : picture.requesters) {
    const uint32_t thread = one.record.thread_id;
    table.add({std::to_string(one.index), nameOfStatus(one.record.status),
               std::to_string(one.pending.length) + (one.pending.sound ? "" : "+"),
               orDash(one.raised), orDash(one.waiters),
               processText(one.record.process_id, one.process_name), yesNo(one.process_lives),
               one.thread_lives ? std::to_string(thread) : hexadecimal(thread, 8),
               yesNo(one.thread_lives)});
  }
  return "\n" + table.text();
}

}  // namespace

std::string asText(const Picture& picture) {
  std::string text =
      engineLine(picture) + requestLines(picture.requests, picture.objects) + replyLines(picture);
  for (const Oddity& oddity : picture.oddities) text += "odd       " + oddity.text + "\n";
  return text + "\n" + objectTable(picture) + requesterTable(picture);
}

}  // namespace armstat
