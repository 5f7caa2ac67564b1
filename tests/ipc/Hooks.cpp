#include "Hooks.h"

#include <cerrno>
#include <cstdarg>
#include <new>

namespace hooks {

std::function<int(int, const sembuf*, size_t)> onSemop;
std::function<int(int, int, int)> onSemctl;
std::function<void(useconds_t)> onUsleep;
std::function<void(CkesMutex*)> onLock;
std::function<void(CkesMutex*)> onUnlock;
std::function<bool(size_t)> onNothrowNew;

void reset() {
  onSemop = nullptr;
  onSemctl = nullptr;
  onUsleep = nullptr;
  onLock = nullptr;
  onUnlock = nullptr;
  onNothrowNew = nullptr;
}

}  // namespace hooks

namespace {

// The library's static objects call the functions below before and after the hooks exist.
bool hooksExist = false;

struct HooksExist {
  HooksExist() { hooksExist = true; }
  ~HooksExist() { hooksExist = false; }
} const whileTheyDo;

template <typename Hook>
bool isSet(const Hook& hook) {
  return hooksExist && hook;
}

}  // namespace

// The names are those that '-Wl,--wrap' gives; the mangled ones are the same on both widths.
extern "C" {

int __real_semop(int set, sembuf* operations, size_t count);
int __wrap_semop(int set, sembuf* operations, size_t count);
int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds);
long __real__ZN9CkesMutex4LockEv(CkesMutex* mutex);
long __wrap__ZN9CkesMutex4LockEv(CkesMutex* mutex);
long __real__ZN9CkesMutex6UnlockEv(CkesMutex* mutex);
long __wrap__ZN9CkesMutex6UnlockEv(CkesMutex* mutex);
long __real__ZN9CkesMutex4PassEv(CkesMutex* mutex);
long __wrap__ZN9CkesMutex4PassEv(CkesMutex* mutex);

// semctl is called by another name where time has 64 bits and long has not.
#if defined(__LP64__)
#define REAL_SEMCTL __real_semctl
#define WRAP_SEMCTL __wrap_semctl
#else
#define REAL_SEMCTL __real___semctl64
#define WRAP_SEMCTL __wrap___semctl64
#endif
int REAL_SEMCTL(int set, int number, int command, ...);
int WRAP_SEMCTL(int set, int number, int command, ...);

int __wrap_semop(int set, sembuf* operations, size_t count) {
  const int decision =
      isSet(hooks::onSemop) ? hooks::onSemop(set, operations, count) : hooks::kRunIt;
  if (decision == hooks::kRunIt) return __real_semop(set, operations, count);
  if (decision == hooks::kPretendSuccess) return 0;
  errno = decision;
  return -1;
}

int WRAP_SEMCTL(int set, int number, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const int error = isSet(hooks::onSemctl) ? hooks::onSemctl(set, number, command) : 0;
  if (error == 0) return REAL_SEMCTL(set, number, command, argument);
  errno = error;
  return -1;
}

int __wrap_usleep(useconds_t microseconds) {
  if (!isSet(hooks::onUsleep)) return __real_usleep(microseconds);
  hooks::onUsleep(microseconds);
  return 0;
}

long __wrap__ZN9CkesMutex4LockEv(CkesMutex* mutex) {
  if (isSet(hooks::onLock)) hooks::onLock(mutex);
  return __real__ZN9CkesMutex4LockEv(mutex);
}

long __wrap__ZN9CkesMutex6UnlockEv(CkesMutex* mutex) {
  if (isSet(hooks::onUnlock)) hooks::onUnlock(mutex);
  return __real__ZN9CkesMutex6UnlockEv(mutex);
}

// Both in one.
long __wrap__ZN9CkesMutex4PassEv(CkesMutex* mutex) {
  if (isSet(hooks::onLock)) hooks::onLock(mutex);
  const long result = __real__ZN9CkesMutex4PassEv(mutex);
  if (isSet(hooks::onUnlock)) hooks::onUnlock(mutex);
  return result;
}

}  // extern "C"

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  if (isSet(hooks::onNothrowNew) && hooks::onNothrowNew(size)) return nullptr;
  return ::operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  if (isSet(hooks::onNothrowNew) && hooks::onNothrowNew(size)) return nullptr;
  return ::operator new[](size);
}
