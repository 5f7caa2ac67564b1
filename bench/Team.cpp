#include "Team.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

namespace bench {

int64_t nowOf(clockid_t clock) {
  timespec time = {};
  (void)clock_gettime(clock, &time);
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

int64_t now() {
  return nowOf(CLOCK_MONOTONIC);
}

void* sharedMemory(std::size_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::exit(1);
  }
  return memory;
}

/// What the caller and its workers meet at.
struct Team::Gate {
  pthread_barrier_t barrier;
  std::atomic<unsigned> round;
};

namespace {

constexpr unsigned END = ~0U;

struct ThreadStart {
  Team* team;
  unsigned worker;
};

}  // namespace

Team::Team(Kind kind, unsigned workers, Body body)
    : body_(std::move(body)), gate_(new (sharedMemory(sizeof(Gate))) Gate) {
  pthread_barrierattr_t shared;
  (void)pthread_barrierattr_init(&shared);
  (void)pthread_barrierattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
  (void)pthread_barrier_init(&gate_->barrier, &shared, workers + 1);
  for (unsigned i = 0; i < workers; ++i) {
    if (kind == Kind::threads) {
      startThread(i);
    } else {
      startProcess(i);
    }
  }
}

Team::~Team() {
  gate_->round = END;
  (void)pthread_barrier_wait(&gate_->barrier);
  for (const pthread_t thread : threads_) (void)pthread_join(thread, nullptr);
  for (const pid_t process : processes_) (void)waitpid(process, nullptr, 0);
}

void* Team::threadMain(void* start) {
  const std::unique_ptr<ThreadStart> own(static_cast<ThreadStart*>(start));
  own->team->work(own->worker);
  return nullptr;
}

void Team::startThread(unsigned worker) {
  constexpr std::size_t STACK = 256 * 1024;
  pthread_attr_t attributes;
  (void)pthread_attr_init(&attributes);
  (void)pthread_attr_setstacksize(&attributes, STACK);
  pthread_t thread;
  if (pthread_create(&thread, &attributes, threadMain, new ThreadStart{this, worker}) != 0) {
    std::perror("pthread_create");
    std::exit(1);
  }
  threads_.push_back(thread);
}

void Team::startProcess(unsigned worker) {
  const pid_t process = fork();
  if (process < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (process > 0) {
    processes_.push_back(process);
    return;
  }
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  work(worker);
  _exit(0);
}

void Team::work(unsigned worker) {
  for (;;) {
    (void)pthread_barrier_wait(&gate_->barrier);
    const unsigned round = gate_->round;
    if (round == END) return;
    body_(worker, round);
    (void)pthread_barrier_wait(&gate_->barrier);
  }
}

Cost Team::run(unsigned round) {
  return run(round, [] {});
}

Cost Team::run(unsigned round, const std::function<void()>& meanwhile) {
  gate_->round = round;
  const Cost begin = {now(), nowOf(CLOCK_PROCESS_CPUTIME_ID)};
  (void)pthread_barrier_wait(&gate_->barrier);
  meanwhile();
  (void)pthread_barrier_wait(&gate_->barrier);
  return {now() - begin.elapsed, nowOf(CLOCK_PROCESS_CPUTIME_ID) - begin.cpu};
}

}  // namespace bench
