#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

namespace bench {

/// Nanoseconds of a clock.
int64_t nowOf(clockid_t clock);
/// Nanoseconds of the monotonic clock.
int64_t now();

/// Elapsed time and the processor time of the program, in nanoseconds.
struct Cost {
  int64_t elapsed;
  int64_t cpu;
};

/// Workers, threads or forked processes, that run rounds together. The body gets the worker's
/// number and the round's.
class Team {
 public:
  enum class Kind { threads, processes };
  using Body = std::function<void(unsigned worker, unsigned round)>;

  Team(Kind kind, unsigned workers, Body body);
  /// Ends the workers.
  ~Team();
  Team(const Team&) = delete;
  Team& operator=(const Team&) = delete;

  /// Lets every worker run the round; returns when all have.
  Cost run(unsigned round);
  /// The same, with something that the caller does meanwhile.
  Cost run(unsigned round, const std::function<void()>& meanwhile);

 private:
  struct Gate;

  void work(unsigned worker);
  void startThread(unsigned worker);
  void startProcess(unsigned worker);
  static void* threadMain(void* start);

  Body body_;
  Gate* gate_;
  std::vector<pthread_t> threads_;
  std::vector<pid_t> processes_;
};

/// Memory of zeros that forked processes share with the caller; never given back.
void* sharedMemory(std::size_t size);

}  // namespace bench
