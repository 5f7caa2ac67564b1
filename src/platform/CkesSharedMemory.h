#pragma once

#include "ipc/EngineObjects.h"

/// A named, lockable block of System V shared memory, paired with a set of two semaphores:
/// semaphore 0 is the lock of the segment (0 free, 1 held, each holder's increment with SEM_UNDO),
/// semaphore 1 tells whether the creator lives (2 while it does, 1 after it has exited, 0 not yet
/// initialised).
///
/// Both keys come from the name file, an ordinary file at the path that createIPCName makes of the
/// name: project 1 the set, project 2 the segment.
///
/// Results are 0 or a negative code; the public operations record a failure with the error manager.
/// Any number of threads and processes may use a segment; mutual exclusion rests on semaphore 0
/// alone, which is not re-entrant.  The object itself is fixed after construction.
class CkesSharedMemory {
 public:
  static constexpr int IPC_SEM_ID = SET_PROJECT;
  static constexpr int IPC_MEM_ID = SEGMENT_PROJECT;

  static constexpr long ERR_FTOK = -250;
  static constexpr long ERR_OPEN = -251;
  static constexpr long ERR_CREATE = -252;
  static constexpr long ERR_READ_EMPTY = -253;
  static constexpr long ERR_WRITE_EMPTY = -254;
  static constexpr long ERR_WRITE_CLIPPED = -255;
  static constexpr long ERR_NOT_INITIALIZED = -260;
  static constexpr long ERR_LOCK = -261;
  static constexpr long ERR_UNLOCK = -262;
  static constexpr long ERR_CREATOR_GONE = -263;

  /// Opens an existing segment.  Counts as initialized when the result is 0 or -263 (opened, but
  /// the creator has exited).
  CkesSharedMemory(const char* name, bool owner);
  /// Creates the segment: replaces an older set, makes the name file when missing, reuses a segment
  /// that is at least as large, and fills size bytes with zeros.
  CkesSharedMemory(const char* name, unsigned long size, bool owner);
  /// Detaches; an owner also removes the set and the segment.  The name file stays.
  ~CkesSharedMemory();
  CkesSharedMemory(const CkesSharedMemory&) = delete;
  CkesSharedMemory& operator=(const CkesSharedMemory&) = delete;

  /// Copies length bytes at offset into buffer under the lock.  A request that passes the end is
  /// clipped to one byte short of it; -253 when nothing is left, or when offset lies past the end.
  long Read(unsigned long offset, unsigned long length, void* buffer);
  /// Copies buffer into the segment under the lock, clipped as in Read (then -255 is recorded and
  /// the clipped write done); -254 when nothing is left, or when offset lies past the end.
  long Write(unsigned long offset, unsigned long length, void* buffer);
  /// Takes semaphore 0, without a time limit; -260 or -261.
  long Lock();
  /// Releases semaphore 0, without waiting; -260 or -262 (also when it is free).
  long Unlock();
  /// True when semaphore 1 is greater than 1; false also when it cannot be read.
  bool CreatorAlive();

  /// What creation or opening returned: 0, or -250 to -252 or -263.
  long GetInitResult() const { return VInitResult; }
  /// Where the segment is attached in this process, null when it is not.
  void* GetAddress() const { return VAddress; }
  /// Size in bytes: what was asked for by the creator, the segment's own size for an opener.
  unsigned long GetSize() const { return VSize; }
  /// Identifier of the set of semaphores: another creator, also of the same name, has another one.
  int GetSetId() const { return VSemaphore; }
  /// True when the segment is open or created.
  bool IsInitialized() const { return VInitialized; }

 private:
  long implOpen(const char* path);
  long implCreate(const char* path, unsigned long size);
  long implRead(unsigned long offset, unsigned long length, void* buffer);
  long implWrite(unsigned long offset, unsigned long length, void* buffer);
  long implLock();
  long implUnlock();
  bool implCreatorAlive();
  void implDestroy();

  long openSegment(int key);
  long checkCreator();
  long createSet(int key);
  long createSegment(const char* path, unsigned long size);
  void detach();
  bool fits(unsigned long offset, unsigned long length) const;
  unsigned long clippedLength(unsigned long offset) const;

  bool VInitialized;
  int VSemaphore;
  int VMemory;
  void* VAddress;
  unsigned long VSize;
  bool VOwner;
  long VInitResult;
};

/// Gets the segment of a key (shmget with the given size and permission bits 0666) and removes it.
/// Returns 0 when there was none or it was removed, else the errno of the failed removal.
int getAndRemoveSharedMemory(int key, unsigned long size);
