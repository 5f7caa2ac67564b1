#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdint>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "platform/CkesSemaphore.h"
#include "platform/namefile.h"

namespace {

constexpr int KEY_ID = 1;
constexpr unsigned short COUNT = 0;
constexpr unsigned short LOCK = 1;
constexpr unsigned short MAXIMUM = 2;
constexpr int SET_SIZE = 3;
constexpr int ACCESS = 0666;

constexpr const char* OPEN = "CkesSemaphore_LINUX::implOpen";

/// The fourth argument of semctl, as POSIX leaves it to the caller to define.
union TSemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

bool setValue(int set, int number, long value) {
  TSemArgument argument = {};
  argument.val = static_cast<int>(value);
  return semctl(set, number, SETVAL, argument) != -1;
}

/// One semop, repeated while a signal interrupts it.
bool operateThroughSignals(int set, sembuf* operations, size_t count) {
  for (;;) {
    if (semop(set, operations, count) == 0) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace

bool CkesSemaphore::implCreate(char* path, long initial, long maximum) {
  if (!ensureNameFile(path)) return false;
  const key_t key = path != nullptr ? ftok(path, KEY_ID) : 0;
  if (key == -1) return false;
  VSemaphore = semget(key, SET_SIZE, ACCESS | IPC_CREAT);
  if (VSemaphore == -1) {
    // A stale set of the key with fewer semaphores: clear it away and try once more.
    VSemaphore = semget(key, 1, 0);
    if (VSemaphore == -1) return false;
    (void)semctl(VSemaphore, 0, IPC_RMID);
    VSemaphore = semget(key, SET_SIZE, ACCESS | IPC_CREAT);
    if (VSemaphore == -1) return false;
  }
  if (!setValue(VSemaphore, COUNT, initial)) return false;
  if (!setValue(VSemaphore, LOCK, 0)) return false;
  if (!setValue(VSemaphore, MAXIMUM, maximum)) return false;
  VOwner = true;
  return true;
}

bool CkesSemaphore::implOpen(char* path) {
  VOwner = false;
  VMaximum = 0;
  const key_t key = ftok(path, KEY_ID);
  if (key == -1) {
    if (VDebugRun) traceFormatln("%s ftok call failed[%d] for i_Name[%s]", OPEN, errno, path);
    return false;
  }
  VSemaphore = semget(key, SET_SIZE, 0);
  if (VSemaphore == -1) {
    if (VDebugRun) traceFormatln("%s semget call failed[%d] for sem_key[%d]", OPEN, errno, key);
    return false;
  }
  VMaximum = semctl(VSemaphore, MAXIMUM, GETVAL);
  return true;
}

long CkesSemaphore::implWait(long) {
  sembuf take = {COUNT, -1, 0};
  return operateThroughSignals(VSemaphore, &take, 1) ? 0 : ERR_WAIT;
}

long CkesSemaphore::implTryWait() {
  sembuf take = {COUNT, -1, IPC_NOWAIT};
  // Deliberate: an interrupting signal is a failure here, not a reason to repeat.
  if (semop(VSemaphore, &take, 1) == 0) return 0;
  return errno == EAGAIN ? ERR_WOULD_BLOCK : ERR_WAIT;
}

long CkesSemaphore::implPost(long count) {
  if (!implLock()) return ERR_POST;
  long result = 0;
  const int64_t sum = static_cast<int64_t>(semctl(VSemaphore, COUNT, GETVAL)) + count;
  if (sum > VMaximum) {
    result = ERR_MAXIMUM;
  } else {
    sembuf add = {COUNT, static_cast<short>(count), 0};
    if (semop(VSemaphore, &add, 1) != 0) result = ERR_POST;
  }
  (void)implUnlock();
  return result;
}

bool CkesSemaphore::implLock() {
  sembuf lock[] = {{LOCK, 0, 0}, {LOCK, 1, SEM_UNDO}};
  return operateThroughSignals(VSemaphore, lock, 2);
}

bool CkesSemaphore::implUnlock() {
  sembuf unlock = {LOCK, -1, IPC_NOWAIT | SEM_UNDO};
  return semop(VSemaphore, &unlock, 1) == 0;
}

bool CkesSemaphore::implDestroy() {
  if (!VOwner) return true;
  return semctl(VSemaphore, 0, IPC_RMID) != -1;
}
