#pragma once

// The System V back end of CIPCQueue: its own semaphore set.  Included by CIPCQueue.h only.

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

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
    VWakeSet = CWakeSet(semget(key, WAKE_SET_FIRST_HEAD, 0));
    if (VWakeSet.Id() == -1) {
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
    VWakeSet = CWakeSet(semget(key, items + WAKE_SET_FIRST_HEAD, OBJECT_ACCESS | IPC_CREAT));
    if (VWakeSet.Id() == -1) {
      return traceFailure("%s - ERROR - semget IPC_CREAT errno = %d, sem_num = %d", INITIALIZE,
                          errno, items + WAKE_SET_FIRST_HEAD);
    }
    const int initialized = VWakeSet.Value(WAKE_SET_INITIALIZED);
    if (initialized < 0) {
      return traceFailure("%s - ERROR - semctl GETVAL errno = %d", INITIALIZE, errno);
    }
    if (initialized == 0) return fillSet(items);
    // Left over from an earlier run.
    if (!VWakeSet.Remove()) {
      return traceFailure("%s - ERROR - semctl IPC_RMID errno = %d", INITIALIZE, errno);
    }
  }
}

template <typename T>
bool CIPCQueue<T>::fillSet(unsigned short items) {
  auto* zeros = new (std::nothrow) unsigned short[items + unsigned{WAKE_SET_FIRST_HEAD}]();
  const bool zeroed = zeros != nullptr && VWakeSet.SetAll(zeros);
  const int error = errno;
  delete[] zeros;
  if (!zeroed) return traceFailure("%s - ERROR - semctl SETALL errno = %d", INITIALIZE, error);
  if (!VWakeSet.Raise(WAKE_SET_INITIALIZED, 1)) {
    return traceFailure("%s - ERROR - semop Semaphore #0 initialization errno = %d", INITIALIZE,
                        errno);
  }
  return true;
}

template <typename T>
void CIPCQueue<T>::implDestroy() {
  if (VRemove) (void)VWakeSet.Remove();
}
