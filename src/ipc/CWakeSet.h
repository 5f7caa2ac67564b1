#pragma once

#include <sys/sem.h>

#include <cstdint>

#include "platform/semaphoreset.h"

/// The reply queue's wake-up set (EngineObjects.h), by its identifier.  No state but that; any
/// thread.
class CWakeSet {
 public:
  explicit CWakeSet(int id) : VId(id) {}

  int Id() const { return VId; }

  /// Takes one unit, without a time limit and through signals; false when the set is gone.
  bool Wait(uint16_t semaphore) const {
    sembuf take = {semaphore, -1, 0};
    return semopThroughSignals(VId, &take, 1) == 0;
  }
  bool Raise(uint16_t semaphore, int by) const {
    sembuf add = {semaphore, static_cast<short>(by), 0};
    return semop(VId, &add, 1) == 0;
  }
  /// Threads that sleep on a semaphore, negative on failure.
  int Waiters(uint16_t semaphore) const { return semctl(VId, semaphore, GETNCNT); }
  int Value(uint16_t semaphore) const { return semctl(VId, semaphore, GETVAL); }
  void SetValue(uint16_t semaphore, int value) const {
    TSemArgument argument = {};
    argument.val = value;
    (void)semctl(VId, semaphore, SETVAL, argument);
  }
  /// Sets all semaphores, one value for each; false on failure.
  bool SetAll(unsigned short* values) const {
    TSemArgument argument = {};
    argument.array = values;
    return semctl(VId, 0, SETALL, argument) >= 0;
  }
  bool Remove() const { return semctl(VId, 0, IPC_RMID) >= 0; }

 private:
  int VId;
};
