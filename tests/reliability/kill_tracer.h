#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace armtest {

/// Where a traced process has stopped: before or after one of its System V calls.
struct Stop {
  bool before;
  std::string step;  ///< what the call does, such as "requests lock"; see TracedProcess
};

/// A process whose System V calls, and those that look at name files, can be gone through one by
/// one. Steps are named after the object and the operation: "requests lock", "wake wait", "empty
/// raise", "requests GETVAL", "stat controls_ea.kelp", "shmat". A set that none of the name files
/// leads to is "unknown". The tracer and the process have one width. One thread traces.
class TracedProcess {
 public:
  /// Forks a process that prepares itself, untraced, and stops before it runs body, with whose
  /// result it exits.
  TracedProcess(const std::function<void()>& prepare, const std::function<int()>& body);
  /// Kills it when it still runs.
  ~TracedProcess();
  TracedProcess(const TracedProcess&) = delete;
  TracedProcess& operator=(const TracedProcess&) = delete;

  pid_t process() const { return process_; }
  /// Lets it run until any of its threads begins or ends a System V call; nothing when it has
  /// ended.
  std::optional<Stop> next();
  /// Kills it, with all threads, and waits for its end.
  void kill();
  /// Lets it run, untraced, and waits for its end; returns its exit code.
  int release();
  /// The exit code of a process that has ended, 128 + N if signal N ended it; -1 while it runs.
  int exitCode() const { return exit_code_; }

 private:
  struct Thread {
    bool stopped = true;
    int signal = 0;    ///< to be delivered when it goes on
    std::string step;  ///< of the System V call that it is in
  };

  void go();
  std::optional<Stop> stopOf(pid_t id, Thread& thread, int status);
  bool takeEvent(pid_t* id, int* status);

  pid_t process_;
  int exit_code_ = -1;
  std::map<pid_t, Thread> threads_;
};

}  // namespace armtest
