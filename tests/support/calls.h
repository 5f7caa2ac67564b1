#pragma once

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/semaphoreset.h"
#include "unwatched.h"

class CkesMutex;

/// The functions below the library that a test can watch, replace or make fail.  The linker's
/// --wrap option sends the program's calls of them here, of those that the program names with
/// arm_intercept; calls that a shared library makes go straight to the real functions, and
/// programs that link one stand before it (nextcall.h).  Set them before the threads begin that use
/// them.
namespace armtest::calls {

/// What asked decides: the call goes through, or returns 0 at once.  Else: the errno to fail with.
inline constexpr int RUN_IT = 0;
inline constexpr int PRETEND_SUCCESS = -1;

template <typename Signature>
class Call;

template <typename Result, typename... Arguments>
class Call<Result(Arguments...)> {
 public:
  using Function = std::function<Result(Arguments...)>;

  constexpr explicit Call(Result (*function)(Arguments...)) : real_(function) {}

  Result operator()(Arguments... arguments) {
    if (Unwatched::here()) return real_(arguments...);
    ++count_;
    const Function* replacement = replacement_;
    return replacement != nullptr ? (*replacement)(arguments...) : real_(arguments...);
  }

  /// Calls the real function.
  Result real(Arguments... arguments) { return real_(arguments...); }

  /// From here on `function` is called instead, and calls are counted anew.
  void replace(Function function) {
    delete replacement_.exchange(new Function(std::move(function)));
    count_ = 0;
  }

  /// Calls from here on go to the real function again and are counted anew.
  void watch() {
    delete replacement_.exchange(nullptr);
    count_ = 0;
  }

  /// After `skip` calls that go through, `times` calls return `result` with errno set to `error`.
  void fail(Result result, int error, int skip = 0, int times = INT_MAX) {
    auto round = std::make_shared<std::atomic<int>>(0);
    replace([=](Arguments... arguments) {
      const int number = (*round)++;
      if (number < skip || number - skip >= times) return real_(arguments...);
      errno = error;
      return result;
    });
  }

  /// Asks `decide` before each call what is to become of it.
  template <typename Decide>
  void ask(Decide decide) {
    replace([=](Arguments... arguments) mutable -> Result {
      const int decision = decide(arguments...);
      if (decision == RUN_IT) return real_(arguments...);
      if (decision == PRETEND_SUCCESS) return 0;
      errno = decision;
      return -1;
    });
  }

  /// Calls since the last replace, watch or fail.
  int count() const { return count_; }

 private:
  Result (*real_)(Arguments...);
  std::atomic<const Function*> replacement_{nullptr};
  std::atomic<int> count_{0};
};

extern Call<key_t(const char*, int)> ftok;
extern Call<int(key_t, int, int)> semget;
extern Call<int(int, sembuf*, size_t)> semop;
extern Call<int(int, int, int, TSemArgument)> semctl;
extern Call<int(key_t, size_t, int)> shmget;
extern Call<void*(int, const void*, int)> shmat;
extern Call<int(const void*)> shmdt;
extern Call<int(int, int, shmid_ds*)> shmctl;

extern Call<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Call<int(pthread_mutex_t*)> pthread_mutex_destroy;
extern Call<int(pthread_mutex_t*)> pthread_mutex_lock;
extern Call<int(pthread_mutex_t*)> pthread_mutex_trylock;
extern Call<int(pthread_mutex_t*)> pthread_mutex_unlock;
extern Call<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init;
extern Call<int(pthread_cond_t*)> pthread_cond_destroy;
extern Call<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
extern Call<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait;
extern Call<int(pthread_cond_t*)> pthread_cond_signal;
extern Call<int(pthread_cond_t*)> pthread_cond_broadcast;
extern Call<int(pthread_key_t*, void (*)(void*))> pthread_key_create;
extern Call<int(pthread_key_t, const void*)> pthread_setspecific;
extern Call<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
extern Call<int(pthread_t, void**)> pthread_join;
extern Call<int(pthread_t)> pthread_cancel;
extern Call<pthread_t()> pthread_self;
extern Call<int()> sched_yield;

extern Call<std::time_t(std::time_t*)> time;
extern Call<int(timeval*, void*)> gettimeofday;
extern Call<int(clockid_t, timespec*)> clock_gettime;
extern Call<int(const timespec*, timespec*)> nanosleep;
extern Call<int(useconds_t)> usleep;
extern Call<int(char*, size_t)> gethostname;
extern Call<pid_t()> getpid;
extern Call<int(const char*, int, mode_t)> open;
extern Call<ssize_t(int, const void*, size_t)> write;
extern Call<int(int*, int)> pipe2;
extern Call<int(char*)> putenv;
extern Call<void*(size_t)> malloc;
extern Call<void*(size_t, const std::nothrow_t&)> nothrow_new;
extern Call<void*(size_t, const std::nothrow_t&)> nothrow_new_array;

/// Asks before each allocation that may fail, of one object or of many: true makes it fail.
void refuseMemory(const std::function<bool(size_t)>& refuse);
void giveMemory();

extern Call<long(CkesMutex*)> mutex_lock;
extern Call<long(CkesMutex*)> mutex_unlock;
extern Call<long(CkesMutex*)> mutex_pass;

/// Collects every semop in `operations`, as "{number,op,flags}" for each record.
void recordSemops(std::vector<std::string>& operations);

}  // namespace armtest::calls
