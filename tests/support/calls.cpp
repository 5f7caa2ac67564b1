#include "calls.h"

#include <fcntl.h>

#include <cstdarg>

// The C library's names of functions that know wide times and offsets depend on the platform.
#if __SIZEOF_POINTER__ == 4
#define SEMCTL "__semctl64"
#define SHMCTL "__shmctl64"
#define TIMEDWAIT "__pthread_cond_timedwait64"
#define TIME "__time64"
#define GETTIMEOFDAY "__gettimeofday64"
#define CLOCK_GETTIME "__clock_gettime64"
#define NANOSLEEP "__nanosleep64"
#define OPEN "open64"
#define NOTHROW_NEW "_ZnwjRKSt9nothrow_t"
#define NOTHROW_NEW_ARRAY "_ZnajRKSt9nothrow_t"
#else
#define SEMCTL "semctl"
#define SHMCTL "shmctl"
#define TIMEDWAIT "pthread_cond_timedwait"
#define TIME "time"
#define GETTIMEOFDAY "gettimeofday"
#define CLOCK_GETTIME "clock_gettime"
#define NANOSLEEP "nanosleep"
#define OPEN "open"
#define NOTHROW_NEW "_ZnwmRKSt9nothrow_t"
#define NOTHROW_NEW_ARRAY "_ZnamRKSt9nothrow_t"
#endif

// Declares the real function and the linker's substitute for it.  A macro, since only that can make
// symbol names.  The real one is weak: there is none where the program does not intercept it.
#define SUBSTITUTE(name, symbol, result, parameters)                                        \
  extern "C" result real_##name parameters __asm__("__real_" symbol) __attribute__((weak)); \
  extern "C" result wrap_##name parameters __asm__("__wrap_" symbol);

// Also defines the substitute, which calls `armtest::calls::name`.
#define REPLACEABLE(name, symbol, result, parameters, arguments) \
  SUBSTITUTE(name, symbol, result, parameters)                   \
  namespace armtest::calls {                                     \
  Call<result parameters> name(real_##name);                     \
  }                                                              \
  result wrap_##name parameters {                                \
    return armtest::calls::name arguments;                       \
  }

REPLACEABLE(ftok, "ftok", key_t, (const char* path, int project), (path, project))
REPLACEABLE(semget, "semget", int, (key_t key, int count, int flags), (key, count, flags))
REPLACEABLE(semop, "semop", int, (int set, sembuf* operations, size_t count),
            (set, operations, count))
REPLACEABLE(shmget, "shmget", int, (key_t key, size_t size, int flags), (key, size, flags))
REPLACEABLE(shmat, "shmat", void*, (int id, const void* address, int flags), (id, address, flags))
REPLACEABLE(shmdt, "shmdt", int, (const void* address), (address))
REPLACEABLE(shmctl, SHMCTL, int, (int id, int command, shmid_ds* info), (id, command, info))

REPLACEABLE(pthread_mutex_init, "pthread_mutex_init", int,
            (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes))
REPLACEABLE(pthread_mutex_destroy, "pthread_mutex_destroy", int, (pthread_mutex_t * mutex), (mutex))
REPLACEABLE(pthread_mutex_lock, "pthread_mutex_lock", int, (pthread_mutex_t * mutex), (mutex))
REPLACEABLE(pthread_mutex_trylock, "pthread_mutex_trylock", int, (pthread_mutex_t * mutex), (mutex))
REPLACEABLE(pthread_mutex_unlock, "pthread_mutex_unlock", int, (pthread_mutex_t * mutex), (mutex))
REPLACEABLE(pthread_cond_init, "pthread_cond_init", int,
            (pthread_cond_t * condition, const pthread_condattr_t* attributes),
            (condition, attributes))
REPLACEABLE(pthread_cond_destroy, "pthread_cond_destroy", int, (pthread_cond_t * condition),
            (condition))
REPLACEABLE(pthread_cond_wait, "pthread_cond_wait", int,
            (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex))
REPLACEABLE(pthread_cond_timedwait, TIMEDWAIT, int,
            (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* deadline),
            (condition, mutex, deadline))
REPLACEABLE(pthread_cond_signal, "pthread_cond_signal", int, (pthread_cond_t * condition),
            (condition))
REPLACEABLE(pthread_cond_broadcast, "pthread_cond_broadcast", int, (pthread_cond_t * condition),
            (condition))
REPLACEABLE(pthread_key_create, "pthread_key_create", int,
            (pthread_key_t * key, void (*destructor)(void*)), (key, destructor))
REPLACEABLE(pthread_setspecific, "pthread_setspecific", int, (pthread_key_t key, const void* value),
            (key, value))
REPLACEABLE(pthread_create, "pthread_create", int,
            (pthread_t * thread, const pthread_attr_t* attributes, void* (*routine)(void*),
             void* argument),
            (thread, attributes, routine, argument))
REPLACEABLE(pthread_join, "pthread_join", int, (pthread_t thread, void** result), (thread, result))
REPLACEABLE(pthread_cancel, "pthread_cancel", int, (pthread_t thread), (thread))
REPLACEABLE(pthread_self, "pthread_self", pthread_t, (), ())
REPLACEABLE(sched_yield, "sched_yield", int, (), ())

REPLACEABLE(time, TIME, std::time_t, (std::time_t * out), (out))
REPLACEABLE(gettimeofday, GETTIMEOFDAY, int, (timeval * out, void* zone), (out, zone))
REPLACEABLE(clock_gettime, CLOCK_GETTIME, int, (clockid_t clock, timespec* out), (clock, out))
REPLACEABLE(nanosleep, NANOSLEEP, int, (const timespec* time, timespec* rest), (time, rest))
REPLACEABLE(usleep, "usleep", int, (useconds_t microseconds), (microseconds))
REPLACEABLE(gethostname, "gethostname", int, (char* out, size_t size), (out, size))
REPLACEABLE(getpid, "getpid", pid_t, (), ())
REPLACEABLE(write, "write", ssize_t, (int file, const void* bytes, size_t count),
            (file, bytes, count))
REPLACEABLE(pipe2, "pipe2", int, (int* ends, int flags), (ends, flags))
REPLACEABLE(putenv, "putenv", int, (char* setting), (setting))
REPLACEABLE(malloc, "malloc", void*, (size_t size), (size))
REPLACEABLE(nothrow_new, NOTHROW_NEW, void*, (size_t size, const std::nothrow_t& tag), (size, tag))
REPLACEABLE(nothrow_new_array, NOTHROW_NEW_ARRAY, void*, (size_t size, const std::nothrow_t& tag),
            (size, tag))

// Of the library.
REPLACEABLE(mutex_lock, "_ZN9CkesMutex4LockEv", long, (CkesMutex * mutex), (mutex))
REPLACEABLE(mutex_unlock, "_ZN9CkesMutex6UnlockEv", long, (CkesMutex * mutex), (mutex))
REPLACEABLE(mutex_pass, "_ZN9CkesMutex4PassEv", long, (CkesMutex * mutex), (mutex))

// Two functions that take their last argument only sometimes.
SUBSTITUTE(semctl, SEMCTL, int, (int set, int number, int command, ...))
SUBSTITUTE(open, OPEN, int, (const char* path, int flags, ...))

namespace {

int realSemctl(int set, int number, int command, TSemArgument argument) {
  return real_semctl(set, number, command, argument);
}

int realOpen(const char* path, int flags, mode_t mode) {
  return real_open(path, flags, mode);
}

std::string textOf(const sembuf* operations, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += "{" + std::to_string(operations[i].sem_num) + "," +
            std::to_string(operations[i].sem_op) + "," + std::to_string(operations[i].sem_flg) +
            "}";
  }
  return text;
}

bool takesArgument(int command) {
  return command == SETVAL || command == SETALL || command == GETALL || command == IPC_STAT;
}

}  // namespace

namespace armtest::calls {
Call<int(int, int, int, TSemArgument)> semctl(realSemctl);
Call<int(const char*, int, mode_t)> open(realOpen);

void refuseMemory(const std::function<bool(size_t)>& refuse) {
  for (auto* call : {&nothrow_new, &nothrow_new_array}) {
    call->replace([=](size_t size, const std::nothrow_t& tag) {
      return refuse(size) ? nullptr : call->real(size, tag);
    });
  }
}

void giveMemory() {
  nothrow_new.watch();
  nothrow_new_array.watch();
}

void recordSemops(std::vector<std::string>& operations) {
  semop.replace([&operations](int set, sembuf* records, size_t count) {
    operations.push_back(textOf(records, count));
    return semop.real(set, records, count);
  });
}

}  // namespace armtest::calls

int wrap_semctl(int set, int number, int command, ...) {
  TSemArgument argument = {};
  if (takesArgument(command)) {
    va_list rest;
    va_start(rest, command);
    argument = va_arg(rest, TSemArgument);
    va_end(rest);
  }
  return armtest::calls::semctl(set, number, command, argument);
}

int wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list rest;
    va_start(rest, flags);
    mode = va_arg(rest, mode_t);
    va_end(rest);
  }
  return armtest::calls::open(path, flags, mode);
}
