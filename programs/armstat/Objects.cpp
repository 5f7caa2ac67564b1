#include "armstat/Objects.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "ipc/EngineObjects.h"
#include "ipc/multiagent.h"
#include "platform/semaphoreset.h"
#include "system/NameFiles.h"

namespace armstat {

namespace {

/// True when the object has a key, false when its name file is missing or cannot be reached.
bool makeKey(ObjectBase* object) {
  object->key = ftok(object->path.c_str(), object->project);
  object->has_name = object->key != -1;
  if (!object->has_name) object->error = errno;
  return object->has_name;
}

Segment findSegment(const char* what, const std::string& path) {
  Segment segment;
  segment.what = what;
  segment.path = path;
  segment.project = SEGMENT_PROJECT;
  if (!makeKey(&segment)) return segment;
  segment.id = shmget(segment.key, 0, 0);
  shmid_ds info = {};
  if (segment.id == -1 || shmctl(segment.id, IPC_STAT, &info) != 0) {
    segment.error = errno;
    return segment;
  }
  segment.size = info.shm_segsz;
  segment.attached = info.shm_nattch;
  segment.creator = info.shm_cpid;
  segment.last = info.shm_lpid;
  segment.owner = info.shm_perm.uid;
  segment.mode = info.shm_perm.mode & 0777U;
  return segment;
}

void readValues(SemaphoreSet* set) {
  set->values.resize(set->count);
  TSemArgument argument = {};
  argument.array = set->values.data();
  if (semctl(set->id, 0, GETALL, argument) >= 0) return;
  set->error = errno;
  set->values.clear();
}

SemaphoreSet findSet(const char* what, std::string path, int project, unsigned expected) {
  SemaphoreSet set;
  set.what = what;
  set.path = std::move(path);
  set.project = project;
  set.expected = expected;
  if (!makeKey(&set)) return set;
  set.id = semget(set.key, 0, 0);
  semid_ds info = {};
  TSemArgument argument = {};
  argument.buf = &info;
  if (set.id == -1 || semctl(set.id, 0, IPC_STAT, argument) < 0) {
    set.error = errno;
    return set;
  }
  set.count = static_cast<unsigned>(info.sem_nsems);
  set.owner = info.sem_perm.uid;
  set.mode = info.sem_perm.mode & 0777U;
  readValues(&set);
  return set;
}

}  // namespace

std::optional<unsigned> SemaphoreSet::value(unsigned number) const {
  if (number >= values.size()) return std::nullopt;
  return values[number];
}

std::optional<unsigned> SemaphoreSet::waiters(unsigned number) const {
  if (number >= count) return std::nullopt;
  const int waiting = semctl(id, static_cast<int>(number), GETNCNT);
  if (waiting < 0) return std::nullopt;
  return static_cast<unsigned>(waiting);
}

pid_t SemaphoreSet::lastProcess(unsigned number) const {
  const int process = number < count ? semctl(id, static_cast<int>(number), GETPID) : 0;
  return process > 0 ? process : 0;
}

std::vector<const ObjectBase*> Objects::all() const {
  return {&requests, &request_lock, &empty, &overflow, &replies, &reply_lock, &wake};
}

std::vector<const SemaphoreSet*> Objects::sets() const {
  return {&request_lock, &empty, &overflow, &reply_lock, &wake};
}

bool Objects::any() const {
  const auto objects = all();
  return std::any_of(objects.begin(), objects.end(),
                     [](const ObjectBase* object) { return object->exists(); });
}

void choosePrefix(const std::string& prefix) {
  (void)setenv(MULTI_AGENT_ENV_VAR, prefix.c_str(), 1);
}

std::optional<std::string> prefixInForce() {
  const char* prefix = std::getenv(MULTI_AGENT_ENV_VAR);
  if (prefix == nullptr) return std::nullopt;
  return prefix;
}

std::string prefixInWords() {
  const auto prefix = prefixInForce();
  return prefix ? "with the prefix '" + *prefix + "'" : "without a prefix";
}

Objects findObjects() {
  const armengine::NameFiles files = armengine::nameFiles();
  Objects objects;
  objects.requests = findSegment("request segment", files.requests);
  objects.request_lock = findSet("request lock", files.requests, SET_PROJECT, LOCK_SET_SIZE);
  objects.empty = findSet("request arrivals (_emp)", files.empty, SET_PROJECT, COUNTING_SET_SIZE);
  objects.overflow = findSet("request room (_ovr)", files.overflow, SET_PROJECT, COUNTING_SET_SIZE);
  objects.replies = findSegment("reply segment", files.replies);
  objects.reply_lock = findSet("reply lock", files.replies, SET_PROJECT, LOCK_SET_SIZE);
  objects.wake =
      findSet("reply wake-ups", armengine::objectPath(REPLY_QUEUE_NAME, WAKE_SET_PATH_LIMIT),
              WAKE_SET_PROJECT, WAKE_SET_FIRST_HEAD);
  return objects;
}

std::vector<std::string> namePaths() {
  const armengine::NameFiles files = armengine::nameFiles();
  return {files.requests, files.empty, files.overflow, files.replies};
}

}  // namespace armstat
