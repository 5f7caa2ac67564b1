#include "ipcobjects.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "platform/semaphoreset.h"
#include "unwatched.h"

namespace armtest {

namespace {

constexpr const char* DIRECTORY = "/var/kelp";
constexpr int CREATE = IPC_CREAT | IPC_EXCL | 0666;

key_t keyOf(const std::string& path, int project) {
  const Unwatched own;
  return ftok(path.c_str(), project);
}

int controlSet(int set, int number, int command, TSemArgument argument = {}) {
  const Unwatched own;
  return semctl(set, number, command, argument);
}

int controlSet(int set, int command, semid_ds* status) {
  TSemArgument argument = {};
  argument.buf = status;
  return controlSet(set, 0, command, argument);
}

int controlSegment(int segment, int command, shmid_ds* status = nullptr) {
  const Unwatched own;
  return shmctl(segment, command, status);
}

void need(bool succeeded, const std::string& what) {
  if (!succeeded) throw std::runtime_error(what);
}

semid_ds statusOfSet(int set) {
  semid_ds status = {};
  need(controlSet(set, IPC_STAT, &status) >= 0, "no such set");
  return status;
}

shmid_ds statusOfSegment(int segment) {
  shmid_ds status = {};
  need(controlSegment(segment, IPC_STAT, &status) >= 0, "no such segment");
  return status;
}

ipc_perm ownWithMode(unsigned mode) {
  ipc_perm permissions = {};
  permissions.uid = geteuid();
  permissions.gid = getegid();
  permissions.mode = static_cast<decltype(permissions.mode)>(mode);
  return permissions;
}

/// The highest index that a set, or segment, of this namespace has.
int lastSet(seminfo& info) {
  return controlSet(0, SEM_INFO, reinterpret_cast<semid_ds*>(&info));
}

int lastSegment() {
  shm_info info = {};
  return controlSegment(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
}

}  // namespace

std::string controlPath(const std::string& name) {
  return std::string(DIRECTORY) + "/controls_" + name;
}

std::vector<std::string> nameFiles() {
  std::vector<std::string> names;
  DIR* directory = opendir(DIRECTORY);
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

bool touch(const std::string& path) {
  const Unwatched own;
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  return file >= 0 && close(file) == 0;
}

unsigned semaphoreSets() {
  seminfo info = {};
  (void)lastSet(info);
  return static_cast<unsigned>(info.semusz);
}

unsigned ipcObjects() {
  unsigned objects = semaphoreSets();
  for (int index = lastSegment(); index >= 0; --index) {
    // A removed segment that a client still has attached has no key any more.
    shmid_ds status = {};
    if (controlSegment(index, SHM_STAT, &status) < 0) continue;
    if ((status.shm_perm.mode & SHM_DEST) == 0) ++objects;
  }
  return objects;
}

void removeIpcObjects() {
  seminfo info = {};
  for (int index = lastSet(info); index >= 0; --index) {
    semid_ds status = {};
    removeSet(controlSet(index, SEM_STAT, &status));
  }
  for (int index = lastSegment(); index >= 0; --index) {
    shmid_ds status = {};
    removeSegment(controlSegment(index, SHM_STAT, &status));
  }
}

int segmentAt(const std::string& path, int project) {
  const key_t key = keyOf(path, project);
  const Unwatched own;
  return key != -1 ? shmget(key, 0, 0) : -1;
}

int setAt(const std::string& path, int project) {
  const key_t key = keyOf(path, project);
  const Unwatched own;
  return key != -1 ? semget(key, 0, 0) : -1;
}

int makeSegment(const std::string& path, size_t size, int project) {
  need(touch(path), path);
  const Unwatched own;
  return shmget(keyOf(path, project), size, CREATE | SHM_NORESERVE);
}

int makeSet(const std::string& path, int semaphores, int project) {
  need(touch(path), path);
  const Unwatched own;
  return semget(keyOf(path, project), semaphores, CREATE);
}

bool segmentExists(int segment) {
  shmid_ds status = {};
  return controlSegment(segment, IPC_STAT, &status) == 0;
}

size_t segmentSize(int segment) {
  return statusOfSegment(segment).shm_segsz;
}

unsigned segmentMode(int segment) {
  return statusOfSegment(segment).shm_perm.mode & 0777U;
}

void setSegmentMode(int segment, unsigned mode) {
  shmid_ds status = {};
  status.shm_perm = ownWithMode(mode);
  need(controlSegment(segment, IPC_SET, &status) == 0, "no such segment");
}

unsigned long attachments(int segment) {
  return statusOfSegment(segment).shm_nattch;
}

void removeSegment(int segment) {
  (void)controlSegment(segment, IPC_RMID);
}

bool setExists(int set) {
  return semaphoreValue(set, 0) >= 0;
}

size_t setSize(int set) {
  return statusOfSet(set).sem_nsems;
}

unsigned setMode(int set) {
  return statusOfSet(set).sem_perm.mode & 0777U;
}

void setSetMode(int set, unsigned mode) {
  semid_ds status = {};
  status.sem_perm = ownWithMode(mode);
  need(controlSet(set, IPC_SET, &status) == 0, "no such set");
}

void removeSet(int set) {
  (void)controlSet(set, 0, IPC_RMID);
}

int semaphoreValue(int set, int number) {
  return controlSet(set, number, GETVAL);
}

void setSemaphore(int set, int number, int value) {
  need(trySetSemaphore(set, number, value), "no such semaphore");
}

bool trySetSemaphore(int set, int number, int value) {
  TSemArgument argument = {};
  argument.val = value;
  return controlSet(set, number, SETVAL, argument) == 0;
}

int semaphoreWaiters(int set, int number) {
  return controlSet(set, number, GETNCNT);
}

int zeroWaiters(int set, int number) {
  return controlSet(set, number, GETZCNT);
}

Attached::Attached(int segment) {
  const Unwatched own;
  address_ = shmat(segment, nullptr, 0);
  need(address_ != reinterpret_cast<void*>(-1), "no such segment");
}

Attached::~Attached() {
  const Unwatched own;
  shmdt(address_);
}

}  // namespace armtest
