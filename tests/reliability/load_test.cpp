// Loading and unloading again and again, calls while the process ends, two copies in one process.
// The program is not linked with the library.
//
// ARM_LOAD_ROUNDS is the number of rounds.

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedEngine.h"
#include "counted.h"
#include "fork_calls.h"
#include "gtest/gtest.h"
#include "ipcobjects.h"
#include "nextcall.h"
#include "process.h"
#include "setting.h"

namespace {

std::atomic<int> openings{0};
std::atomic<bool> slowly{false};

}  // namespace

// An attempt to open the connection begins with the key of this name.
extern "C" key_t ftok(const char* path, int project) __THROW;
extern "C" key_t ftok(const char* path, int project) __THROW {
  static auto* const REAL = armtest::nextCall<key_t(const char*, int)>("ftok");
  if (std::strcmp(path, "/var/kelp/controls_ae.kelp_ovr") == 0) {
    openings.fetch_add(1);
    // Long enough for all others to come in, if nothing keeps them out.
    if (slowly.load()) usleep(50000);
  }
  return REAL(path, project);
}

namespace armtest {
namespace {

constexpr const char* LIBRARY = ARM_BUILD_DIR "/lib/libarm.so";
constexpr unsigned SHORT_ROUNDS = 600;
constexpr unsigned WARM_UP = 20;
constexpr unsigned EVERY_CALL = 16;

unsigned rounds() {
  const uint32_t count = settingOr("ARM_LOAD_ROUNDS", SHORT_ROUNDS);
  return count > WARM_UP ? count : SHORT_ROUNDS;
}

/// Thread-local keys that the process could still make.
unsigned freeKeys() {
  std::vector<pthread_key_t> made;
  pthread_key_t key = 0;
  while (pthread_key_create(&key, nullptr) == 0) made.push_back(key);
  for (const pthread_key_t one : made) pthread_key_delete(one);
  return static_cast<unsigned>(made.size());
}

unsigned mappings() {
  std::ifstream maps("/proc/self/maps");
  unsigned count = 0;
  for (std::string line; std::getline(maps, line);) ++count;
  return count;
}

unsigned long mappedKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 7, "VmSize:") == 0) return strtoul(line.c_str() + 7, nullptr, 10);
  }
  return 0;
}

struct Footprint {
  unsigned sets = 0;
  unsigned keys = 0;
  unsigned long attached = 0;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // The sanitizers' own memory grows.
  unsigned maps = 0;
  unsigned long kilobytes = 0;
  size_t allocated = 0;
#endif
};

Footprint takeFootprint() {
  Footprint all;
  all.sets = semaphoreSets();
  all.keys = freeKeys();
  all.attached = segmentsAttached();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  all.maps = mappings();
  all.kilobytes = mappedKilobytes();
  all.allocated = mallinfo2().uordblks;
#endif
  return all;
}

void expectSame(const Footprint& before, const Footprint& after) {
  EXPECT_EQ(before.sets, after.sets);
  EXPECT_EQ(before.keys, after.keys);
  EXPECT_EQ(before.attached, after.attached);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_EQ(before.maps, after.maps);
  EXPECT_EQ(before.kilobytes, after.kilobytes);
  EXPECT_EQ(before.allocated, after.allocated);
#endif
}

class Loads : public testing::Test {
 protected:
  void startEngine() {
    ASSERT_TRUE(engine_.start());
    engine_.derive();
  }

  ScriptedEngine engine_;
};

TEST_F(Loads, RoundsWithCallsLeaveNoGrowth) {
  startEngine();
  const unsigned keys = freeKeys();
  Footprint before;
  unsigned wrong = 0;
  for (unsigned round = 0; round < rounds(); ++round) {
    if (round == WARM_UP) before = takeFootprint();
    void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    wrong += static_cast<unsigned>(
        wrongAnswersOfEveryCall(loadedCalls(library), static_cast<int32_t>(1 + round)));
    ASSERT_EQ(0, dlclose(library));
  }
  EXPECT_EQ(0U, wrong);
  const Footprint after = takeFootprint();
  expectSame(before, after);
  // What stays: the library with two keys, its connection, the environment's text, the converter.
  EXPECT_EQ(2U, keys - after.keys);
  EXPECT_EQ(2U, after.attached);
  EXPECT_EQ(1, openings.load());
  // The engine's own.
  EXPECT_EQ(5, after.sets);
  counted("dlopen, every call, dlclose", rounds());
}

TEST_F(Loads, RoundsWithoutCallsKeepTheLibraryGuarded) {
  startEngine();
  const unsigned keys = freeKeys();
  for (unsigned round = 0; round < rounds(); ++round) {
    void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    ASSERT_EQ(0, dlclose(library));
  }
  EXPECT_EQ(2U, keys - freeKeys());
  const ArmCalls arm = loadedCalls(dlopen(LIBRARY, RTLD_NOW));
  slowly.store(true);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int32_t thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&arm, &wrong, thread] {
      const int32_t id = 1 + thread * 1000;
      wrong.fetch_add(arm.start(id, 0, nullptr, 0) == derivedResult(id) ? 0 : 1);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(1, openings.load()) << "nothing keeps threads from opening the connection at once";
  counted("dlopen, dlclose without a call", rounds());
}

// The thread sanitizer takes a few keys itself, and reports threads that nothing guards.
#if !defined(__SANITIZE_THREAD__)

TEST_F(Loads, InAProcessWithoutAFreeKeyCallsStillWork) {
  startEngine();
  pthread_key_t key = 0;
  while (pthread_key_create(&key, nullptr) == 0) {
  }
  const ArmCalls arm = loadedCalls(dlopen(LIBRARY, RTLD_NOW));
  std::atomic<unsigned> calls{0};
  for (int32_t round = 0; round < 3; ++round) {
    EXPECT_EQ(0, wrongAnswersOfEveryCall(arm, 1 + round));
    calls.fetch_add(EVERY_CALL);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int32_t thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&, thread] {
        for (int32_t id = 1; id < 50; ++id) {
          const int32_t own = id + 1000 * thread;
          wrong.fetch_add(arm.update(own, 0, nullptr, 0) == derivedResult(own) ? 0 : 1);
          calls.fetch_add(1);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, wrong.load());
    engine_.kill();
    EXPECT_EQ(-2, arm.start(1, 0, nullptr, 0));
    startEngine();
  }
  counted("calls without a free thread-local key", calls.load());
}

#endif

// ---- the end of a process -----------------------------------------------------------------------

/// Runs a program that calls at a place; the engine, unless 0, is killed before.
int runClient(const char* program, const char* place, pid_t engine = 0) {
  const std::string path = std::string(ARM_BUILD_DIR "/bin/") + program;
  const std::string killed = std::to_string(engine);
  return exitCodeOf(forkChild([&] {
    execl(path.c_str(), path.c_str(), place, engine != 0 ? killed.c_str() : nullptr, nullptr);
    return 127;
  }));
}

constexpr const char* PROGRAMS[] = {"load_exit_linked", "load_exit_opened"};
constexpr const char* PLACES[] = {"atexit",
                                  "atexit-before-loading",
                                  "static-destructor",
                                  "thread-destructor",
                                  "destructor-function",
                                  "earliest-atexit"};

TEST_F(Loads, CallsWhileTheProcessEndsAreAnswered) {
  startEngine();
  unsigned ends = 0;
  for (const char* tracing : {"", "1"}) {
    if (*tracing != '\0') setenv("ARMDEBUG", tracing, 1);
    for (const char* program : PROGRAMS) {
      for (const char* place : PLACES) {
        EXPECT_EQ(100, runClient(program, place)) << program << ", " << place;
        (void)engine_.reclaim();
        ++ends;
      }
      EXPECT_EQ(0, runClient(program, "nowhere")) << program;
    }
  }
  counted("calls while the process ends", ends);
}

TEST_F(Loads, CallsWhileTheProcessEndsSeeThatTheEngineHasDied) {
  unsigned ends = 0;
  for (const char* tracing : {"", "1"}) {
    if (*tracing != '\0') setenv("ARMDEBUG", tracing, 1);
    for (const char* program : PROGRAMS) {
      for (const char* place : PLACES) {
        startEngine();
        EXPECT_EQ(100, runClient(program, place, engine_.process())) << program << ", " << place;
        engine_.kill();
        ++ends;
      }
    }
  }
  counted("calls while the process ends, the engine killed before", ends);
}

// The library's mutexes are destroyed under the threads, which the thread sanitizer reports.
#if !defined(__SANITIZE_THREAD__)

TEST_F(Loads, ProcessEndsWhileItsThreadsAreCalling) {
  unsigned ends = 0;
  startEngine();
  for (int round = 0; round < 20; ++round) {
    for (const char* program : PROGRAMS) {
      EXPECT_EQ(100, runClient(program, "calling-threads")) << program;
      (void)engine_.reclaim();
      ++ends;
    }
  }
  counted("exit while four threads call", ends);
}

#endif

// ---- two copies ---------------------------------------------------------------------------------

// The sanitizers cannot be loaded a second time.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

/// Two copies in a program of its own, which has no keys but theirs, while engines come and go.
class CopiesProgram {
 public:
  CopiesProgram() {
    EXPECT_TRUE(pipe2(toProgram_, O_CLOEXEC) == 0 && pipe2(fromProgram_, O_CLOEXEC) == 0);
    process_ = forkChild([this] {
      dup2(toProgram_[0], STDIN_FILENO);
      dup2(fromProgram_[1], STDOUT_FILENO);
      for (const int end : {toProgram_[0], toProgram_[1], fromProgram_[0], fromProgram_[1]}) {
        close(end);
      }
      execl(ARM_BUILD_DIR "/bin/load_copies_client", "load_copies_client", LIBRARY, nullptr);
      return 127;
    });
    close(toProgram_[0]);
    close(fromProgram_[1]);
  }
  ~CopiesProgram() { close(fromProgram_[0]); }
  CopiesProgram(const CopiesProgram&) = delete;
  CopiesProgram& operator=(const CopiesProgram&) = delete;

  /// The byte that it writes after each round.
  char roundEnds() const {
    char outcome = '?';
    return read(fromProgram_[0], &outcome, 1) == 1 ? outcome : '?';
  }
  void nextRound() const { EXPECT_EQ(1, write(toProgram_[1], "g", 1)); }
  int end() {
    close(toProgram_[1]);
    return exitCodeOf(process_);
  }

 private:
  int toProgram_[2];
  int fromProgram_[2];
  pid_t process_;
};

TEST_F(Loads, TwoCopiesServeTheSameThreads) {
  startEngine();
  CopiesProgram program;
  EXPECT_EQ('r', program.roundEnds());
  for (int round = 0; round < 5; ++round) {
    engine_.kill();
    startEngine();
    program.nextRound();
    EXPECT_EQ('r', program.roundEnds()) << "round " << round;
  }
  EXPECT_EQ(0, program.end());
  counted("two copies in one process, rounds", 6);
}

/// Thread-local keys of a program, with values that must stay as they are. A second C library
/// numbers its keys anew but keeps their values where the first does, so the numbers matter and not
/// who made them: all numbers below a bound are used here, those of GoogleTest too.
class HostKeys {
 public:
  HostKeys() {
    for (size_t i = 0; i < KEYS; ++i) values_[i].assign(SIZE, pattern(i));
    pthread_key_t last = 0;
    while (last < KEYS) EXPECT_EQ(0, pthread_key_create(&last, nullptr));
  }
  void setInThisThread() {
    for (pthread_key_t i = 0; i < KEYS; ++i) {
      EXPECT_EQ(0, pthread_setspecific(i, values_[i].data())) << "key " << i;
    }
  }
  void expectUntouched() const {
    for (pthread_key_t i = 0; i < KEYS; ++i) {
      EXPECT_EQ(values_[i].data(), pthread_getspecific(i)) << "key " << i;
      EXPECT_EQ(std::vector<unsigned char>(SIZE, pattern(i)), values_[i]) << "key " << i;
    }
  }
  /// Before a thread ends, so that no destructor sees what is not its own.
  static void clearInThisThread() {
    for (pthread_key_t i = 0; i < KEYS; ++i) (void)pthread_setspecific(i, nullptr);
  }

 private:
  static constexpr size_t KEYS = 16;
  /// More than an error record has.
  static constexpr size_t SIZE = 1024;
  static unsigned char pattern(size_t i) { return static_cast<unsigned char>(0xA0 + i); }

  std::vector<unsigned char> values_[KEYS];
};

ArmCalls callsOfACopy() {
  return loadedCalls(dlmopen(LM_ID_NEWLM, LIBRARY, RTLD_NOW | RTLD_LOCAL));
}

class Copies : public Loads {
 protected:
  /// Answers, and failures that are recorded in the records of threads that have one.
  int wrongResults(const ArmCalls& arm) {
    int wrong = arm.start(5, 0, nullptr, 0) == -2 ? 0 : 1;
    startEngine();
    wrong += wrongAnswersOfEveryCall(arm, 6);
    engine_.setRequestState(1);
    wrong += arm.start(5, 0, nullptr, 0) == -9 ? 0 : 1;
    engine_.setRequestState(0);
    engine_.quit();
    return wrong;
  }

  HostKeys keys_;
};

TEST_F(Copies, LeaveTheKeysOfTheLoadingThreadAlone) {
  int wrong = -1;
  std::thread([&] {
    keys_.setInThisThread();
    wrong = wrongResults(callsOfACopy());
    keys_.expectUntouched();
    HostKeys::clearInThisThread();
  }).join();
  EXPECT_EQ(0, wrong);
  counted("a copy beside a host's own thread-local keys", 1);
}

TEST_F(Copies, LeaveTheKeysOfOtherThreadsAlone) {
  ArmCalls arm = {};
  std::thread([&] {
    arm = callsOfACopy();
    HostKeys::clearInThisThread();
  }).join();
  int wrong = -1;
  std::thread([&] {
    keys_.setInThisThread();
    wrong = wrongResults(arm);
    keys_.expectUntouched();
    HostKeys::clearInThisThread();
  }).join();
  EXPECT_EQ(0, wrong);
  counted("a copy beside a host's own thread-local keys", 1);
}

#endif

}  // namespace
}  // namespace armtest
