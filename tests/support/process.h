#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include "watchdog.h"

namespace armtest {

/// For a process just forked by `parent`: it is killed when the thread that forked it ends.
inline void dieWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(EXIT_FAILURE);
}

/// Forks a process that runs `body` and exits with its int result, without running exit handlers.
/// The child dies with the calling thread. Returns the child's process id, or -1.
template <typename Body>
pid_t forkChild(Body&& body) {
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child != 0) return child;
  dieWithParent(parent);
  _exit(std::forward<Body>(body)());
}

/// Waits for `child`. Returns its exit code, 128 + N if signal N ended it, or -1 if it is no child.
inline int exitCodeOf(pid_t child) {
  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  if (ended != child) return -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Polls `condition` every millisecond until it holds. False when it does not hold before most of
/// the test's time is over, so that the caller can say what it was waiting for.
template <typename Condition>
bool waitUntil(Condition&& condition) {
  const timespec pause = {0, 1000000};
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t end = now.tv_sec + static_cast<time_t>(secondsPerTest()) * 2 / 3;
  while (!condition()) {
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec >= end) return false;
    nanosleep(&pause, nullptr);
  }
  return true;
}

/// A process whose first thread has ended while another one goes on: /proc shows the state of a
/// zombie, which the caller checks.  To be killed and waited for.
inline pid_t forkWithoutFirstThread() {
  const pid_t child = forkChild([] {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void*) -> void* {
          for (;;) pause();
        },
        nullptr);
    return static_cast<int>(syscall(SYS_exit, 0));
  });
  const std::string path = "/proc/" + std::to_string(child) + "/stat";
  (void)waitUntil([&path] {
    std::string stat;
    std::getline(std::ifstream(path), stat);
    return stat.find(") Z ") != std::string::npos;
  });
  return child;
}

}  // namespace armtest
