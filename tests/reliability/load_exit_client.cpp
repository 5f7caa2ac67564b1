// A program that makes every call while it ends. Compiled twice: linked with the library, and
// opening it with dlopen (LOAD_EXIT_LIBRARY).
//
//   load_exit_client PLACE [ENGINE]
//
// PLACE is where the calls are made. The process ENGINE is killed before: then each call that posts
// must return -2. The exit status is 100 plus the number of wrong answers; a program whose last
// handler has not run ends with 0.

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fork_calls.h"

namespace {

armtest::ArmCalls arm = {};
const char* place = "";
bool engine_killed = false;

bool isPlace(const char* name) {
  return std::strcmp(place, name) == 0;
}

/// Makes every call when this is the place that was asked for, and ends the process.
void callHere(const char* name) {
  if (!isPlace(name)) return;
  int wrong = 0;
  for (int id = 1; id < 4; ++id) {
    wrong += engine_killed ? armtest::wrongResultsWithoutAnEngine(arm)
                           : armtest::wrongAnswersOfEveryCall(arm, id * 1000);
  }
  _exit(100 + wrong);
}

void whenEarliestHandlerRuns() {
  callHere("earliest-atexit");
}

// Before any library's initialisation: runs when everything else is over.
void registerEarliest() {
  (void)atexit(whenEarliestHandlerRuns);
}

__attribute__((section(".preinit_array"), used)) void (*const PREINIT)() = registerEarliest;

struct CallsInDestructor {
  const char* name;
  ~CallsInDestructor() { callHere(name); }
};

CallsInDestructor static_object{"static-destructor"};
thread_local CallsInDestructor thread_object{"thread-destructor"};

__attribute__((destructor)) void destructorFunction() {
  callHere("destructor-function");
}

void whenHandlerRuns() {
  callHere("atexit");
}

void whenHandlerBeforeLoadingRuns() {
  callHere("atexit-before-loading");
}

void load() {
#if defined(LOAD_EXIT_LIBRARY)
  arm = armtest::loadedCalls(dlopen(LOAD_EXIT_LIBRARY, RTLD_NOW));
#else
  arm = armtest::linkedCalls();
#endif
}

/// Threads that call all the time while the process ends.
void* callOn(void* number) {
  for (int32_t id = static_cast<int32_t>(reinterpret_cast<intptr_t>(number)) * 1000000;; ++id) {
    (void)armtest::wrongAnswersOfEveryCall(arm, id);
  }
  return nullptr;
}

void startCalling() {
  for (intptr_t thread = 1; thread <= 4; ++thread) {
    pthread_t started;
    (void)pthread_create(&started, nullptr, callOn, reinterpret_cast<void*>(thread));
  }
}

bool hasLostItsCreator(const char* name) {
  const int set = semget(ftok(name, 1), 0, 0);
  return semctl(set, 1, GETVAL) == 1;
}

/// Waits until the death of the engine can be seen, by those who look at it; nobody has called
/// then.
bool killEngine(pid_t engine) {
  engine_killed = kill(engine, SIGKILL) == 0;
  for (int i = 0; engine_killed && i < 20000; ++i) {
    if (hasLostItsCreator("/var/kelp/controls_ae.kelp_mem") &&
        hasLostItsCreator("/var/kelp/controls_ea.kelp")) {
      return true;
    }
    usleep(1000);
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) return 99;
  place = argv[1];
  (void)atexit(whenHandlerBeforeLoadingRuns);
  load();
  (void)atexit(whenHandlerRuns);
  // Makes the thread's object, and has its destructor registered.
  if (thread_object.name == nullptr) return 98;
  if (armtest::wrongAnswersOfEveryCall(arm, 7000) != 0) return 97;
  if (argc == 3 && !killEngine(static_cast<pid_t>(std::atoi(argv[2])))) return 96;
  if (isPlace("calling-threads")) {
    startCalling();
    usleep(2000);
    exit(100);
  }
  return 0;
}
