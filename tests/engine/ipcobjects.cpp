#include "ipcobjects.h"

#include <dirent.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <stdexcept>

namespace armtest {

namespace {

constexpr const char* kDirectory = "/var/kelp";
constexpr int kSegmentProject = 2;

union Argument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

semid_ds statusOfSet(int set) {
  semid_ds status = {};
  Argument argument = {};
  argument.buf = &status;
  if (semctl(set, 0, IPC_STAT, argument) < 0) throw std::runtime_error("no such set");
  return status;
}

shmid_ds statusOfSegment(int segment) {
  shmid_ds status = {};
  if (shmctl(segment, IPC_STAT, &status) < 0) throw std::runtime_error("no such segment");
  return status;
}

}  // namespace

std::string controlPath(const std::string& name) {
  return std::string(kDirectory) + "/controls_" + name;
}

std::vector<std::string> nameFiles() {
  std::vector<std::string> names;
  DIR* directory = opendir(kDirectory);
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

unsigned ipcObjects() {
  seminfo sets = {};
  Argument argument = {};
  argument.buf = reinterpret_cast<semid_ds*>(&sets);
  semctl(0, 0, SEM_INFO, argument);
  auto objects = static_cast<unsigned>(sets.semusz);
  shm_info segments = {};
  const int highest = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&segments));
  for (int index = 0; index <= highest; ++index) {
    // A removed segment that a client still has attached has no key any more.
    shmid_ds status = {};
    if (shmctl(index, SHM_STAT, &status) >= 0 && (status.shm_perm.mode & SHM_DEST) == 0) ++objects;
  }
  return objects;
}

int segmentAt(const std::string& path) {
  const key_t key = ftok(path.c_str(), kSegmentProject);
  return key != -1 ? shmget(key, 0, 0) : -1;
}

size_t segmentSize(int segment) {
  return statusOfSegment(segment).shm_segsz;
}

unsigned segmentMode(int segment) {
  return statusOfSegment(segment).shm_perm.mode & 0777U;
}

int setAt(const std::string& path, int project) {
  const key_t key = ftok(path.c_str(), project);
  return key != -1 ? semget(key, 0, 0) : -1;
}

size_t setSize(int set) {
  return statusOfSet(set).sem_nsems;
}

unsigned setMode(int set) {
  return statusOfSet(set).sem_perm.mode & 0777U;
}

int semaphoreValue(int set, int number) {
  return semctl(set, number, GETVAL);
}

void setSemaphore(int set, int number, int value) {
  Argument argument = {};
  argument.val = value;
  if (semctl(set, number, SETVAL, argument) < 0) throw std::runtime_error("no such semaphore");
}

int semaphoreWaiters(int set, int number) {
  return semctl(set, number, GETNCNT);
}

Attached::Attached(const std::string& path) : address_(shmat(segmentAt(path), nullptr, 0)) {
  if (address_ == reinterpret_cast<void*>(-1)) throw std::runtime_error("no segment at " + path);
}

Attached::~Attached() {
  shmdt(address_);
}

}  // namespace armtest
