#pragma once

// The System V back end of CIPCQueue: its own semaphore set.  Included by CIPCQueue.h only.

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "platform/semaphoreset.h"

template <typename T>
bool CIPCQueue<T>::implInitialize(const char* path, unsigned short items) {
  if (VDebugRun) {
    traceFormatln("%s ENTER - name = %s, items = %d", INITIALIZE, path, static_cast<int>(items));
  }
  const key_t key = ftok(path, WAKE_SET_PROJECT);
  if (key == -1) return traceFailure("%s - ERROR - ftok errno = %d", INITIALIZE, errno);
  if (items != 0) {
    if (!createSet(key, items)) return false;
  } else {
    VSemaphores = semget(key, WAKE_SET_FIRST_HEAD, 0);
    if (VSemaphores == -1) {
      return traceFailure("%s - ERROR - semget get semaphore id errno = %d", INITIALIZE, errno);
    }
  }
  if (VDebugRun) {
    traceFormatln("%s EXIT - name = %s, items = %d", INITIALIZE, path, static_cast<int>(items));
  }
  return true;
}

template <typename T>
bool CIPCQueue<T>::createSet(int key, unsigned short items) {
  for (;;) {
    VSemaphores = semget(key, items + WAKE_SET_FIRST_HEAD, OBJECT_ACCESS | IPC_CREAT);
    if (VSemaphores == -1) {
      return traceFailure("%s - ERROR - semget IPC_CREAT errno = %d, sem_num = %d", INITIALIZE,
                          errno, items + WAKE_SET_FIRST_HEAD);
    }
    const int initialized = semctl(VSemaphores, WAKE_SET_INITIALIZED, GETVAL);
    if (initialized < 0)
      return traceFailure("%s - ERROR - semctl GETVAL errno = %d", INITIALIZE, errno);
    if (initialized == 0) return fillSet(items);
    // Left over from an earlier run.
    if (semctl(VSemaphores, 0, IPC_RMID) < 0)
      return traceFailure("%s - ERROR - semctl IPC_RMID errno = %d", INITIALIZE, errno);
  }
}

template <typename T>
bool CIPCQueue<T>::fillSet(unsigned short items) {
  TSemArgument argument = {};
  argument.array = new (std::nothrow) unsigned short[items + unsigned{WAKE_SET_FIRST_HEAD}]();
  const bool zeroed = argument.array != nullptr && semctl(VSemaphores, 0, SETALL, argument) >= 0;
  const int error = errno;
  delete[] argument.array;
  if (!zeroed) return traceFailure("%s - ERROR - semctl SETALL errno = %d", INITIALIZE, error);
  if (!implRaise(WAKE_SET_INITIALIZED, 1)) {
    return traceFailure("%s - ERROR - semop Semaphore #0 initialization errno = %d", INITIALIZE,
                        errno);
  }
  return true;
}

template <typename T>
void CIPCQueue<T>::implDestroy() {
  if (VRemove) (void)semctl(VSemaphores, 0, IPC_RMID);
}

/// Takes one unit, without a limit and through signals.
template <typename T>
bool CIPCQueue<T>::implWaitOn(unsigned short semaphore) {
  sembuf take = {semaphore, -1, 0};
  return semopThroughSignals(VSemaphores, &take, 1) == 0;
}

template <typename T>
bool CIPCQueue<T>::implRaise(unsigned short semaphore, int by) {
  sembuf add = {semaphore, static_cast<short>(by), 0};
  return semop(VSemaphores, &add, 1) == 0;
}

/// Threads that sleep on a semaphore, negative on failure.
template <typename T>
int CIPCQueue<T>::implWaiters(unsigned short semaphore) const {
  return semctl(VSemaphores, semaphore, GETNCNT);
}

template <typename T>
long CIPCQueue<T>::implAwakenAll() {
  const int writers = implWaiters(WAKE_SET_ROOM);
  if (writers < 0) return ERR_GETNCNT;
  if (writers > 0 && !implRaise(WAKE_SET_ROOM, writers)) return ERR_WAKE_WRITER;
  for (uint16_t i = 0; i < VCapacity; ++i) {
    const uint16_t semaphore = loadShared(VHeads[i].semaphore);
    const int readers = implWaiters(semaphore);
    if (readers < 0) return ERR_GETNCNT;
    if (readers > 0 && !implRaise(semaphore, readers)) return ERR_WAKE_READER;
  }
  return 0;
}
