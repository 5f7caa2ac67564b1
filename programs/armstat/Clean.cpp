#include "armstat/Clean.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "armstat/Picture.h"
#include "armstat/Processes.h"
#include "common/Words.h"
#include "ipc/EngineObjects.h"

namespace armstat {

namespace {

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

/// Whether the set may belong to an engine.  Another program's objects can have the same key.
bool isOurs(const Objects& objects, const ObjectBase& object) {
  for (const SemaphoreSet* set : objects.sets()) {
    if (set == &object) return set->error == 0 && set->count == set->expected;
  }
  return object.error == 0;
}

bool isOursWakeSet(const Objects& objects) {
  return objects.wake.error == 0 && objects.wake.fits() &&
         objects.wake.value(WAKE_SET_INITIALIZED).value_or(0) <= 1;
}

/// Objects that nobody has finished: they are an engine's that is being made, or was killed then.
pid_t makerOf(const Objects& objects) {
  for (const SemaphoreSet* set : objects.sets()) {
    for (const unsigned number : {LOCK_SET_CREATOR, COUNTING_SET_COUNT}) {
      const pid_t process = set->lastProcess(number);
      if (processLives(process)) return process;
    }
  }
  for (const Segment* segment : objects.segments()) {
    if (processLives(segment->creator)) return segment->creator;
  }
  return 0;
}

}  // namespace

Cleaning::Cleaning() {
  refusal_ = reasonAgainst(findObjects());
  if (refusal_.empty()) refusal_ = lockOut();
  if (!refusal_.empty()) return;
  // An engine may have come in between.
  const Objects objects = findObjects();
  refusal_ = reasonAgainst(objects);
  if (refusal_.empty()) collect(objects);
}

/// Keeps engines from starting; why that fails, or nothing.
std::string Cleaning::lockOut() {
  const std::string file = armengine::nameFiles().requests;
  // A missing file must not be made here; without it, nobody is known to start either.
  if (!exists(file)) return "";
  if (access(file.c_str(), R_OK) != 0) {
    return file + " may not be read: run armstat clean as its owner or as root";
  }
  if (lock_.acquire(file)) return "";
  return "an engine " + prefixInWords() + " is starting or ending: try again";
}

std::string Cleaning::reasonAgainst(const Objects& objects) const {
  for (const SemaphoreSet* set : {&objects.request_lock, &objects.reply_lock}) {
    if (set->value(LOCK_SET_CREATOR).value_or(0) < CREATOR_LIVES) continue;
    const pid_t process = set->lastProcess(LOCK_SET_CREATOR);
    return "an engine " + prefixInWords() + " lives (process " +
           (process > 0 ? std::to_string(process) : std::string("in another process namespace")) +
           "): stop it first";
  }
  switch (stateByCreators(objects)) {
    case EngineState::unknown:
      return "the objects may not be looked at: run armstat clean as their owner or as root";
    case EngineState::starting:
      if (const pid_t process = makerOf(objects); process != 0) {
        return "process " + std::to_string(process) +
               " is making or using these objects: stop it first";
      }
      return "";
    default:
      return "";
  }
}

void Cleaning::collect(const Objects& objects) {
  for (const ObjectBase* object : objects.all()) {
    const bool ours = object == &objects.wake ? isOursWakeSet(objects) : isOurs(objects, *object);
    if (!object->exists() || !ours) continue;
    const bool segment = object == &objects.requests || object == &objects.replies;
    std::string line = std::string(segment ? "segment" : "set    ") + "  id " +
                       std::to_string(object->id) + "  " + object->what;
    if (segment) {
      const auto& one = static_cast<const Segment&>(*object);
      line += ", " + std::to_string(one.size) + " bytes, " +
              armtools::counted(one.attached, "attachment");
    }
    objects_.push_back({segment, object->id, line});
  }
  for (const std::string& path : namePaths()) {
    if (exists(path)) files_.push_back(path);
  }
}

std::string Cleaning::list() const {
  if (isEmpty()) return "There is nothing to remove " + prefixInWords() + ".\n";
  std::string text = "Left by a dead engine " + prefixInWords() + ":\n";
  for (const Leftover& object : objects_) text += "  " + object.line + "\n";
  for (const std::string& file : files_) text += "  file     " + file + "\n";
  return text;
}

std::string Cleaning::remove() {
  std::string failure;
  const auto check = [&failure](int result, const std::string& what) {
    if (result == 0 || errno == EINVAL || errno == EIDRM || errno == ENOENT || !failure.empty()) {
      return;
    }
    failure = "cannot remove " + what + " (" + std::strerror(errno) +
              "): run armstat clean as its owner or as root";
  };
  for (const Leftover& object : objects_) {
    const int result =
        object.segment ? shmctl(object.id, IPC_RMID, nullptr) : semctl(object.id, 0, IPC_RMID);
    check(result, (object.segment ? "segment " : "semaphore set ") + std::to_string(object.id));
  }
  for (const std::string& file : files_) check(unlink(file.c_str()), file);
  return failure;
}

}  // namespace armstat
