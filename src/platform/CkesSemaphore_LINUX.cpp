#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "platform/CkesSemaphore.h"
#include "platform/namefile.h"
#include "platform/semaphoreset.h"

namespace {

constexpr int KEY_ID = 1;
constexpr unsigned short COUNT = 0;
constexpr unsigned short LOCK = 1;
constexpr unsigned short MAXIMUM = 2;
constexpr int SET_SIZE = 3;
constexpr int ACCESS = 0666;

constexpr const char* OPEN = "CkesSemaphore_LINUX::implOpen";

bool setValue(int set, int number, long value) {
  if (value < 0) return false;  // the kernel would refuse it too, but is handed an int
  TSemArgument argument = {};
  argument.val = static_cast<int>(value);
  return semctl(set, number, SETVAL, argument) != -1;
}

}  // namespace

bool CkesSemaphore::implCreate(char* path, long initial, long maximum) {
  if (!ensureNameFile(path)) return false;
  const key_t key = path != nullptr ? ftok(path, KEY_ID) : 0;
  if (key == -1) return false;
  semid = semget(key, SET_SIZE, ACCESS | IPC_CREAT);
  if (semid == -1) {
    // A stale set of the key with fewer semaphores: clear it away and try once more.
    semid = semget(key, 1, 0);
    if (semid == -1) return false;
    (void)semctl(semid, 0, IPC_RMID);
    semid = semget(key, SET_SIZE, ACCESS | IPC_CREAT);
    if (semid == -1) return false;
  }
  if (!setValue(semid, COUNT, initial)) return false;
  if (!setValue(semid, LOCK, 0)) return false;
  if (!setValue(semid, MAXIMUM, maximum)) return false;
  VOwner = true;
  return true;
}

bool CkesSemaphore::implOpen(char* path) {
  VOwner = false;
  VMaximum = 0;
  const key_t key = ftok(path, KEY_ID);
  if (key == -1) return traceFailure("%s ftok call failed[%d] for i_Name[%s]", OPEN, errno, path);
  semid = semget(key, SET_SIZE, 0);
  if (semid == -1)
    return traceFailure("%s semget call failed[%d] for sem_key[%d]", OPEN, errno, key);
  VMaximum = semctl(semid, MAXIMUM, GETVAL);
  return true;
}

long CkesSemaphore::implWait(long) {
  // Deliberate (no-time-limit): the argument is ignored.
  sembuf take = {COUNT, -1, 0};
  return semopThroughSignals(semid, &take, 1) == 0 ? 0 : ERR_WAIT;
}

long CkesSemaphore::implTryWait() {
  sembuf take = {COUNT, -1, IPC_NOWAIT};
  // Deliberate (try-once): an interrupting signal is a failure here, not a reason to repeat.
  if (semop(semid, &take, 1) == 0) return 0;
  return errno == EAGAIN ? ERR_WOULD_BLOCK : ERR_WAIT;
}

long CkesSemaphore::implPost(long count) {
  if (!implLock()) return ERR_POST;
  long result = 0;
  // A sum with any count that the caller may pass could overflow.
  if (count > VMaximum - semctl(semid, COUNT, GETVAL)) {
    result = ERR_MAXIMUM;
  } else {
    sembuf add = {COUNT, static_cast<short>(count), 0};
    if (semop(semid, &add, 1) != 0) result = ERR_POST;
  }
  (void)implUnlock();
  return result;
}

bool CkesSemaphore::implIsThere() const {
  return semctl(semid, COUNT, GETVAL) >= 0;
}

bool CkesSemaphore::implLock() {
  sembuf lock[] = {{LOCK, 0, 0}, {LOCK, 1, SEM_UNDO}};
  return semopThroughSignals(semid, lock, 2) == 0;
}

bool CkesSemaphore::implUnlock() {
  sembuf unlock = {LOCK, -1, IPC_NOWAIT | SEM_UNDO};
  return semop(semid, &unlock, 1) == 0;
}

bool CkesSemaphore::implDestroy() {
  if (!VOwner) return true;
  return semctl(semid, 0, IPC_RMID) != -1;
}
