#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/EngineObjects.h"
#include "platform/CkesSharedMemory.h"
#include "platform/namefile.h"
#include "platform/semaphoreset.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace {

constexpr const char* OPEN = "CkesSharedMemory_UNIX::implOpen";
constexpr const char* CREATE = "CkesSharedMemory::implCreate()";

// Tells the thread sanitizer, which does not know semop, that the lock orders accesses.
void lockTaken([[maybe_unused]] void* address) {
#if defined(__SANITIZE_THREAD__)
  __tsan_acquire(address);
#endif
}

void lockGivenUp([[maybe_unused]] void* address) {
#if defined(__SANITIZE_THREAD__)
  __tsan_release(address);
#endif
}

/// Traces the step at which opening fails.
__attribute__((cold)) long openFailed(const char* step) {
  return traceFailure(CkesSharedMemory::ERR_OPEN, "%s - ERROR - %s failed where errno = %d", OPEN,
                      step, errno);
}

/// Traces the step at which creating fails.
__attribute__((cold)) long createFailed(const char* step) {
  return traceFailure(CkesSharedMemory::ERR_CREATE, "%s - ERROR - %s where errno = %d", CREATE,
                      step, errno);
}

void traceCreate(const char* when, const char* path, unsigned long size) {
  if (!VDebugRun) return;
  traceFormatln("%s %s(const char* name, unsigned long size) - name = %s, size = %d", when,
                "CkesSharedMemory::implCreate", path, static_cast<int>(size));
}

}  // namespace

long CkesSharedMemory::implOpen(const char* path) {
  if (VDebugRun) traceFormatln("%s ENTER - name = %s", OPEN, path);
  const key_t memoryKey = ftok(path, IPC_MEM_ID);
  if (memoryKey == -1) {
    // sic (two-blanks): behind the second dash.
    return traceFailure(ERR_FTOK, "%s - ERROR -  ftok(name, IPC_MEM_ID) %s name = %s, errno = %d",
                        OPEN, "failed where", path, errno);
  }
  const key_t setKey = ftok(path, IPC_SEM_ID);
  if (setKey == -1) {
    return traceFailure(ERR_FTOK, "%s - ERROR - ftok(name, IPC_SEM_ID) %s name = %s, errno = %d",
                        OPEN, "failed where", path, errno);
  }
  VSemaphore = semget(setKey, LOCK_SET_SIZE, 0);
  if (VSemaphore == -1) return openFailed("semget(sem_key, 2, 0)");
  long result = openSegment(memoryKey);
  if (result == 0) result = checkCreator();
  if (result == 0 && VDebugRun) traceFormatln("%s EXIT - name = %s", OPEN, path);
  return result;
}

long CkesSharedMemory::openSegment(int key) {
  // Size 1 accepts any existing segment of the key.
  VMemory = shmget(key, 1, 0);
  if (VMemory == -1) return openFailed("shmget(mem_key, 1, 0)");
  void* address = shmat(VMemory, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1) || address == nullptr) {
    return openFailed("shmat(VMemory, 0, 0)");
  }
  VAddress = address;
  shmid_ds info = {};
  if (shmctl(VMemory, IPC_STAT, &info) < 0) return openFailed("shmctl(VMemory, IPC_STAT, &info)");
  VSize = info.shm_segsz;
  return 0;
}

long CkesSharedMemory::checkCreator() {
  const int value = semctl(VSemaphore, LOCK_SET_CREATOR, GETVAL);
  if (value >= 0 && value != CREATOR_EXITED) return 0;
  return traceFailure(value < 0 ? ERR_OPEN : ERR_CREATOR_GONE,
                      "%s - ERROR - semctl(VSemaphore, 1, GETVAL) failed where errno = %d, "
                      "sem_val = %d",
                      OPEN, errno, value);
}

long CkesSharedMemory::implCreate(const char* path, unsigned long size) {
  traceCreate("entering", path, size);
  if (!ensureNameFile(path)) return createFailed("fopen(name, \"w\") failed to create");
  const key_t setKey = ftok(path, IPC_SEM_ID);
  if (setKey == -1) return createFailed("ftok(name, IPC_SEM_ID)");
  long result = createSet(setKey);
  if (result == 0) result = createSegment(path, size);
  if (result == 0) traceCreate("exiting", path, size);
  return result;
}

long CkesSharedMemory::createSet(int key) {
  for (;;) {
    VSemaphore = semget(key, LOCK_SET_SIZE, OBJECT_ACCESS | IPC_CREAT);
    if (VSemaphore == -1) return createFailed("semget(sem_key, 2, 0666 | IPC_CREAT)");
    const int value = semctl(VSemaphore, LOCK_SET_CREATOR, GETVAL);
    if (value < 0) return createFailed("semctl(VSemaphore, 1, GETVAL)");
    if (value == 0) break;
    // A set of an earlier creator, whether that lives or not: its holders see their locks fail.
    if (semctl(VSemaphore, 0, IPC_RMID) < 0) return createFailed("semctl(VSemaphore, 0, IPC_RMID)");
  }
  // One permanent increment, and one that the kernel takes back when the creator exits.
  sembuf init[] = {{LOCK_SET_CREATOR, 1, 0}, {LOCK_SET_CREATOR, 1, SEM_UNDO}};
  return semop(VSemaphore, init, 2) < 0 ? createFailed("semop(VSemaphore, op_init, 2)") : 0;
}

long CkesSharedMemory::createSegment(const char* path, unsigned long size) {
  const key_t key = ftok(path, IPC_MEM_ID);
  if (key == -1) {
    return traceFailure(ERR_CREATE,
                        "%s - ERROR - ftok(name, IPC_MEM_ID) where errno = %d, name = %s", CREATE,
                        errno, path);
  }
  // Deliberate (no-ipc-excl): without IPC_EXCL, although the text below names it; a segment that is
  // large enough is reused.
  VMemory = shmget(key, size, OBJECT_ACCESS | IPC_CREAT);
  if (VMemory == -1) {
    return traceFailure(ERR_CREATE,
                        "%s - ERROR - shmget(mem_key, size, 0666 | IPC_CREAT | "
                        "IPC_EXCL) where errno = %d, size = %d",
                        CREATE, errno, static_cast<int>(size));
  }
  void* address = shmat(VMemory, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) return createFailed("shmat(VMemory, 0, 0)");
  VAddress = address;
  std::memset(VAddress, 0, size);
  return 0;
}

long CkesSharedMemory::implRead(unsigned long offset, unsigned long length, void* buffer) {
  const long result = implLock();
  if (result != 0) return result;
  std::memcpy(buffer, static_cast<const char*>(VAddress) + offset, length);
  return implUnlock();
}

long CkesSharedMemory::implWrite(unsigned long offset, unsigned long length, void* buffer) {
  const long result = implLock();
  if (result != 0) return result;
  std::memcpy(static_cast<char*>(VAddress) + offset, buffer, length);
  return implUnlock();
}

long CkesSharedMemory::implLock() {
  // Wait until the lock is free and take it, in one step.
  sembuf lock[] = {{LOCK_SET_LOCK, 0, 0}, {LOCK_SET_LOCK, 1, SEM_UNDO}};
  const int result = semopThroughSignals(VSemaphore, lock, 2);
  if (result < 0) {
    if (VDebugRun) {
      traceFormat("%s: semop on VSemaphore[%d] failed [%d] errno[%d]\n",
                  "CkesSharedMemory::implLock", VSemaphore, result, errno);
    }
    return ERR_LOCK;
  }
  lockTaken(VAddress);
  return 0;
}

long CkesSharedMemory::implUnlock() {
  lockGivenUp(VAddress);
  // Deliberate (unlock-once): never blocks and is never repeated; a lock that is free fails at
  // once.
  sembuf unlock = {LOCK_SET_LOCK, -1, IPC_NOWAIT | SEM_UNDO};
  return semop(VSemaphore, &unlock, 1) < 0 ? ERR_UNLOCK : 0;
}

bool CkesSharedMemory::implCreatorAlive() {
  return semctl(VSemaphore, LOCK_SET_CREATOR, GETVAL) > CREATOR_EXITED;
}

void CkesSharedMemory::implDestroy() {
  detach();
  if (!VOwner) return;
  (void)semctl(VSemaphore, 0, IPC_RMID);
  (void)shmctl(VMemory, IPC_RMID, nullptr);
}

void CkesSharedMemory::detach() {
  if (VAddress == nullptr) return;
  (void)shmdt(VAddress);
  VAddress = nullptr;
}

int getAndRemoveSharedMemory(int key, unsigned long size) {
  const int id = shmget(key, size, OBJECT_ACCESS);
  if (id == -1) return 0;
  return shmctl(id, IPC_RMID, nullptr) < 0 ? errno : 0;
}
