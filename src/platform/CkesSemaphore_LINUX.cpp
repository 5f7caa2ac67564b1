#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/EngineObjects.h"
#include "platform/CkesSemaphore.h"
#include "platform/namefile.h"
#include "platform/semaphoreset.h"

namespace {

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
  const key_t key = path != nullptr ? ftok(path, SET_PROJECT) : 0;
  if (key == -1) return false;
  semid = semget(key, COUNTING_SET_SIZE, OBJECT_ACCESS | IPC_CREAT);
  if (semid == -1) {
    // A stale set of the key with fewer semaphores: clear it away and try once more.
    semid = semget(key, 1, 0);
    if (semid == -1) return false;
    (void)semctl(semid, 0, IPC_RMID);
    semid = semget(key, COUNTING_SET_SIZE, OBJECT_ACCESS | IPC_CREAT);
    if (semid == -1) return false;
  }
  if (!setValue(semid, COUNTING_SET_COUNT, initial)) return false;
  if (!setValue(semid, COUNTING_SET_LOCK, 0)) return false;
  if (!setValue(semid, COUNTING_SET_MAXIMUM, maximum)) return false;
  VOwner = true;
  return true;
}

bool CkesSemaphore::implOpen(char* path) {
  VOwner = false;
  VMaximum = 0;
  const key_t key = ftok(path, SET_PROJECT);
  if (key == -1) return traceFailure("%s ftok call failed[%d] for i_Name[%s]", OPEN, errno, path);
  semid = semget(key, COUNTING_SET_SIZE, 0);
  if (semid == -1)
    return traceFailure("%s semget call failed[%d] for sem_key[%d]", OPEN, errno, key);
  VMaximum = semctl(semid, COUNTING_SET_MAXIMUM, GETVAL);
  return true;
}

long CkesSemaphore::implWait(long) {
  // Deliberate (no-time-limit): the argument is ignored.
  sembuf take = {COUNTING_SET_COUNT, -1, 0};
  return semopThroughSignals(semid, &take, 1) == 0 ? 0 : ERR_WAIT;
}

long CkesSemaphore::implTryWait() {
  sembuf take = {COUNTING_SET_COUNT, -1, IPC_NOWAIT};
  // Deliberate (try-once): an interrupting signal is a failure here, not a reason to repeat.
  if (semop(semid, &take, 1) == 0) return 0;
  return errno == EAGAIN ? ERR_WOULD_BLOCK : ERR_WAIT;
}

long CkesSemaphore::implPost(long count) {
  if (!implLock()) return ERR_POST;
  long result = 0;
  // A sum with any count that the caller may pass could overflow.
  if (count > VMaximum - semctl(semid, COUNTING_SET_COUNT, GETVAL)) {
    result = ERR_MAXIMUM;
  } else {
    sembuf add = {COUNTING_SET_COUNT, static_cast<short>(count), 0};
    if (semop(semid, &add, 1) != 0) result = ERR_POST;
  }
  (void)implUnlock();
  return result;
}

bool CkesSemaphore::implIsThere() const {
  return semctl(semid, COUNTING_SET_COUNT, GETVAL) >= 0;
}

bool CkesSemaphore::implLock() {
  sembuf lock[] = {{COUNTING_SET_LOCK, 0, 0}, {COUNTING_SET_LOCK, 1, SEM_UNDO}};
  return semopThroughSignals(semid, lock, 2) == 0;
}

bool CkesSemaphore::implUnlock() {
  sembuf unlock = {COUNTING_SET_LOCK, -1, IPC_NOWAIT | SEM_UNDO};
  return semop(semid, &unlock, 1) == 0;
}

bool CkesSemaphore::implDestroy() {
  if (!VOwner) return true;
  return semctl(semid, 0, IPC_RMID) != -1;
}
