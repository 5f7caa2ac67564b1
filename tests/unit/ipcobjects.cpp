#include "ipcobjects.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <fstream>

#include "calls.h"
#include "process.h"

namespace armtest {

namespace {

key_t keyOf(const std::string& path, int project) {
  return calls::ftok.real(path.c_str(), project);
}

void touch(const std::string& path) {
  const std::ofstream file(path, std::ios::app);
}

int control(int set, int number, int command, int value = 0) {
  TSemArgument argument = {};
  argument.val = value;
  return calls::semctl.real(set, number, command, argument);
}

}  // namespace

int setOf(const std::string& path, int project) {
  return calls::semget.real(keyOf(path, project), 0, 0);
}

int segmentOf(const std::string& path, int project) {
  return calls::shmget.real(keyOf(path, project), 0, 0);
}

int makeSet(const std::string& path, int semaphores, int project) {
  touch(path);
  return calls::semget.real(keyOf(path, project), semaphores, IPC_CREAT | IPC_EXCL | 0666);
}

int makeSegment(const std::string& path, size_t size, int project) {
  touch(path);
  return calls::shmget.real(keyOf(path, project), size, IPC_CREAT | IPC_EXCL | 0666);
}

bool setExists(int set) {
  return control(set, 0, GETVAL) >= 0;
}

bool segmentExists(int segment) {
  shmid_ds info = {};
  return calls::shmctl.real(segment, IPC_STAT, &info) == 0;
}

unsigned long attachments(int segment) {
  shmid_ds info = {};
  (void)calls::shmctl.real(segment, IPC_STAT, &info);
  return info.shm_nattch;
}

int semaphoreValue(int set, int number) {
  return control(set, number, GETVAL);
}

void setSemaphore(int set, int number, int value) {
  (void)control(set, number, SETVAL, value);
}

bool sleeperComes(int set, int number) {
  return waitUntil([=] { return control(set, number, GETNCNT) == 1; });
}

bool sleeperForZeroComes(int set, int number) {
  return waitUntil([=] { return control(set, number, GETZCNT) == 1; });
}

}  // namespace armtest
