#include "platform/CkesSharedMemory.h"

#include "diag/CkesErrorManager.h"
#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"

CkesSharedMemory::CkesSharedMemory(const char* name, bool owner)
    : VInitialized(false),
      VSemaphore(-1),
      VMemory(-1),
      VAddress(nullptr),
      VSize(0),
      VOwner(owner),
      VInitResult(0) {
  char path[SEGMENT_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(name, nullptr, SEGMENT_PATH_LIMIT, path);
  VInitResult = implOpen(path);
  // Deliberate (creator-gone): a segment whose creator has exited counts as open.  Callers see the
  // dead creator in GetInitResult and CreatorAlive, and can still read what the segment holds.
  VInitialized = VInitResult == 0 || VInitResult == ERR_CREATOR_GONE;
}

CkesSharedMemory::CkesSharedMemory(const char* name, unsigned long size, bool owner)
    : VInitialized(false),
      VSemaphore(-1),
      VMemory(-1),
      VAddress(nullptr),
      VSize(size),
      VOwner(owner),
      VInitResult(0) {
  char path[SEGMENT_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(name, nullptr, SEGMENT_PATH_LIMIT, path);
  VInitResult = implCreate(path, size);
  VInitialized = VInitResult == 0;
}

CkesSharedMemory::~CkesSharedMemory() {
  if (VInitialized) {
    implDestroy();
  } else {
    // A segment that was attached before opening or creating failed must not outlive the object in
    // the host's address space.
    detach();
  }
}

bool CkesSharedMemory::fits(unsigned long offset, unsigned long length) const {
  return offset <= VSize && length <= VSize - offset;
}

unsigned long CkesSharedMemory::clippedLength(unsigned long offset) const {
  // Deliberate (one-byte-short): one byte short of the end, so that a clipped request never reaches
  // the last byte.
  return offset < VSize ? VSize - offset - 1 : 0;
}

long CkesSharedMemory::Read(unsigned long offset, unsigned long length, void* buffer) {
  static constexpr const char* where = "CkesSharedMemory::Read()";
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, where);
  if (!fits(offset, length)) {
    length = clippedLength(offset);
    if (length == 0) return CkesErrorManager::Record(ERR_READ_EMPTY, where);
  }
  return CkesErrorManager::Record(implRead(offset, length, buffer), where);
}

long CkesSharedMemory::Write(unsigned long offset, unsigned long length, void* buffer) {
  static constexpr const char* where = "CkesSharedMemory::Write()";
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, where);
  if (!fits(offset, length)) {
    length = clippedLength(offset);
    if (length == 0) return CkesErrorManager::Record(ERR_WRITE_EMPTY, where);
    (void)CkesErrorManager::Record(ERR_WRITE_CLIPPED, where);
  }
  return CkesErrorManager::Record(implWrite(offset, length, buffer), where);
}

long CkesSharedMemory::Lock() {
  return CkesErrorManager::Record(VInitialized ? implLock() : ERR_NOT_INITIALIZED,
                                  "CkesSharedMemory::Lock()");
}

long CkesSharedMemory::Unlock() {
  return CkesErrorManager::Record(VInitialized ? implUnlock() : ERR_NOT_INITIALIZED,
                                  "CkesSharedMemory::Unlock()");
}

bool CkesSharedMemory::CreatorAlive() {
  return implCreatorAlive();
}
