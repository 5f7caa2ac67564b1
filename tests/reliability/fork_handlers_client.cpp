// A host with fork handlers of its own. Compiled twice: linked with the library, so that its
// handlers are registered later than the library's, and opening it with dlopen when they are
// registered already.
//
//   fork_handlers_client PLACE FORKS
//
// PLACE is what calls the library: a handler ("prepare", "parent", "child"), or a thread that holds
// a mutex which the handlers lock and unlock ("mutex"). "first-..." is the same before any other
// call. The exit status is the number of wrong answers, of all processes; a host that hangs is
// ended by SIGALRM.

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "fork_calls.h"
#include "process.h"
#include "shared.h"

namespace {

constexpr unsigned SECONDS_UNTIL_IT_HANGS = 60;

struct Answers {
  std::atomic<int> wrong;
};

armtest::ArmCalls host_calls = {};
const char* guarded_place = "";
pthread_mutex_t host_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> fork_waits_for_mutex{false};
std::atomic<bool> stop{false};
armtest::Shared<Answers> answers;

bool isGuardedPlace(const char* name) {
  return std::strcmp(guarded_place, name) == 0;
}

void makeCalls(int id) {
  answers->wrong.fetch_add(armtest::wrongAnswersOfEveryCall(host_calls, id));
}

void beforeFork() {
  if (isGuardedPlace("prepare")) makeCalls(1000);
  if (!isGuardedPlace("mutex")) return;
  fork_waits_for_mutex.store(true);
  pthread_mutex_lock(&host_mutex);
}

void inParent() {
  if (isGuardedPlace("parent")) makeCalls(2000);
  if (!isGuardedPlace("mutex")) return;
  fork_waits_for_mutex.store(false);
  pthread_mutex_unlock(&host_mutex);
}

void inChild() {
  if (isGuardedPlace("child")) makeCalls(3000);
  if (isGuardedPlace("mutex")) pthread_mutex_unlock(&host_mutex);
}

void registerAndLoad() {
#if defined(FORK_HANDLERS_LIBRARY)
  (void)pthread_atfork(beforeFork, inParent, inChild);
  host_calls = armtest::loadedCalls(dlopen(FORK_HANDLERS_LIBRARY, RTLD_NOW));
#else
  host_calls = armtest::linkedCalls();
  (void)pthread_atfork(beforeFork, inParent, inChild);
#endif
}

void forkOnce(int number) {
  const int code = armtest::exitCodeOf(armtest::forkChild([number] {
    (void)alarm(SECONDS_UNTIL_IT_HANGS);
    makeCalls(100000 + 100 * number);
    return 0;
  }));
  if (code != 0) answers->wrong.fetch_add(1);
}

/// Makes the calls of one round with the mutex held, when a fork has begun that waits for it.
void callWithMutexOnceAForkWaits(int id) {
  pthread_mutex_lock(&host_mutex);
  while (!fork_waits_for_mutex.load() && !stop.load()) std::this_thread::yield();
  makeCalls(id);
  pthread_mutex_unlock(&host_mutex);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 99;
  (void)alarm(SECONDS_UNTIL_IT_HANGS);
  const bool first = std::strncmp(argv[1], "first-", 6) == 0;
  guarded_place = first ? argv[1] + 6 : argv[1];
  registerAndLoad();
  std::vector<std::thread> threads;
  if (isGuardedPlace("mutex")) {
    if (!first) makeCalls(7);
    threads.emplace_back([] {
      for (int id = 1000000; !stop.load(); id += 100) callWithMutexOnceAForkWaits(id);
    });
  }
  for (int thread = 0; thread < 2 && !first; ++thread) {
    threads.emplace_back([thread] {
      for (int id = 10000000 * (2 + thread); !stop.load(); id += 100) makeCalls(id);
    });
  }
  for (int number = 0; number < std::atoi(argv[2]); ++number) forkOnce(number);
  stop.store(true);
  for (std::thread& thread : threads) thread.join();
  const int wrong = answers->wrong.load();
  return wrong < 90 ? wrong : 90;
}
