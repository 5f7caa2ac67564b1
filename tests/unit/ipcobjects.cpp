#include "ipcobjects.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <fstream>

#include "calls.h"
#include "process.h"

namespace {

key_t keyOf(const std::string& path, int project) {
  return calls::ftok.real(path.c_str(), project);
}

void touch(const std::string& path) {
  const std::ofstream file(path, std::ios::app);
}

int control(int set, int number, int command, int value = 0) {
  calls::SemArgument argument = {};
  argument.val = value;
  return calls::semctl.real(set, number, command, argument);
}

std::string textOf(const sembuf* operations, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += "{" + std::to_string(operations[i].sem_num) + "," +
            std::to_string(operations[i].sem_op) + "," + std::to_string(operations[i].sem_flg) +
            "}";
  }
  return text;
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
  return armtest::waitUntil([=] { return control(set, number, GETNCNT) == 1; });
}

bool sleeperForZeroComes(int set, int number) {
  return armtest::waitUntil([=] { return control(set, number, GETZCNT) == 1; });
}

void recordSemops(std::vector<std::string>& operations) {
  calls::semop.replace([&operations](int set, sembuf* records, size_t count) {
    operations.push_back(textOf(records, count));
    return calls::semop.real(set, records, count);
  });
}
