#pragma once

#include <sys/sem.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>

class CkesMutex;

/// What the library calls can be watched, and made to fail, through these. The linker puts them in
/// place of the real functions, which run when a hook is empty. Set before threads begin, and
/// emptied before what the hooks refer to is gone.
namespace hooks {

constexpr int kRunIt = 0;
constexpr int kPretendSuccess = -1;

/// Called before each semop: kRunIt, kPretendSuccess, or the errno to fail with.
extern std::function<int(int set, const sembuf* operations, size_t count)> onSemop;
/// Called before each semctl: kRunIt, or the errno to fail with.
extern std::function<int(int set, int number, int command)> onSemctl;
/// Called in place of each usleep; nothing sleeps then.
extern std::function<void(useconds_t)> onUsleep;
/// Called before each CkesMutex::Lock and CkesMutex::Unlock; before and after each CkesMutex::Pass.
extern std::function<void(CkesMutex*)> onLock;
extern std::function<void(CkesMutex*)> onUnlock;
/// Called before each allocation that may fail: true makes it fail.
extern std::function<bool(size_t)> onNothrowNew;

/// Empties every hook.
void reset();

}  // namespace hooks
