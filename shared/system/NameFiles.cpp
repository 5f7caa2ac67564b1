#include "system/NameFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"
#include "platform/CkesSharedMemory.h"
#include "platform/namefile.h"

namespace armengine {

namespace {

bool sameFile(int file, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(file, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

void removeSet(const std::string& path, int project) {
  const int set = openSemaphoreSet(path, project);
  if (set != -1) (void)semctl(set, 0, IPC_RMID);
}

}  // namespace

std::string objectPath(const char* base, int limit) {
  char buffer[COUNTING_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(base, nullptr, limit, buffer);
  return buffer;
}

NameFiles nameFiles() {
  return {objectPath(OVERFLOW_NAME, COUNTING_PATH_LIMIT),
          objectPath(EMPTY_NAME, COUNTING_PATH_LIMIT),
          objectPath(REQUEST_SEGMENT_NAME, SEGMENT_PATH_LIMIT),
          objectPath(REPLY_QUEUE_NAME, SEGMENT_PATH_LIMIT)};
}

bool makeNameFiles(const NameFiles& files, std::string* why) {
  if (mkdir(NAME_DIRECTORY, 0755) != 0 && errno != EEXIST) {
    *why = std::string("cannot make the directory ") + NAME_DIRECTORY + " (" +
           std::strerror(errno) + "): make it and give it to the engine's user";
    return false;
  }
  for (const std::string* file : {&files.overflow, &files.empty, &files.requests, &files.replies}) {
    if (ensureNameFile(file->c_str())) continue;
    *why = "cannot create " + *file + " (" + std::strerror(errno) +
           "): give the directory to the engine's user";
    return false;
  }
  return true;
}

void removeNameFiles(const NameFiles& files) {
  for (const std::string* file : {&files.overflow, &files.empty, &files.replies, &files.requests}) {
    (void)unlink(file->c_str());
  }
}

PrefixLock::~PrefixLock() {
  if (file_ >= 0) (void)close(file_);
}

bool PrefixLock::acquire(const std::string& path) {
  // An engine that ends deletes the file: a lock on a file that is no longer the named one is worth
  // nothing.
  for (;;) {
    const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0) return false;
    if (flock(file, LOCK_EX | LOCK_NB) != 0) {
      (void)close(file);
      return false;
    }
    if (sameFile(file, path)) {
      file_ = file;
      return true;
    }
    (void)close(file);
  }
}

int liveEngine(const std::string& path) {
  const int set = openSemaphoreSet(path, SET_PROJECT);
  if (set == -1 || semctl(set, LOCK_SET_CREATOR, GETVAL) < CREATOR_LIVES) return 0;
  return semctl(set, LOCK_SET_CREATOR, GETPID);
}

int openSemaphoreSet(const std::string& path, int project) {
  const key_t key = ftok(path.c_str(), project);
  return key != -1 ? semget(key, 0, 0) : -1;
}

void removeLeftovers(const std::string& path) {
  removeSet(path, SET_PROJECT);
  removeSet(path, WAKE_SET_PROJECT);
  const key_t key = ftok(path.c_str(), SEGMENT_PROJECT);
  // Size 0 finds a segment of any size, so that the new one has exactly the capacity asked for.
  if (key != -1) (void)getAndRemoveSharedMemory(key, 0);
}

}  // namespace armengine
