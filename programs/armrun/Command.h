#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>

namespace armrun {

/// The signals of this process, taken from a file descriptor instead of being delivered.  Changes
/// no disposition but SIGCHLD's, which the command gets back as it was.
class Signals {
 public:
  /// Blocks every signal.
  Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int event() const { return event_; }
  /// Lets the signals that have come do what they do without armrun: most end the process.  False
  /// when some remain, which were blocked before.
  bool deliver() const;
  /// In a new process: the signals as they were before armrun.
  void restore() const;

 private:
  sigset_t before_ = {};
  struct sigaction child_action_ = {};
  int event_ = -1;
};

/// How a command ended.
struct Ending {
  bool by_signal = false;
  int value = 0;  ///< exit status, or the signal's number
};

/// A command that runs as if it had been started directly: in the same process group, at the same
/// terminal, with the same open files, signals and environment.
class Command {
 public:
  /// Starts it.  Where no process can be made for it, it has ended with status 125.
  ///   environment  ends in a null pointer
  Command(char** command, char** environment, const Signals& signals);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  /// Passes signals on to it until it ends, and stops when it is stopped by the terminal.
  Ending waitForEnd();

 private:
  void takeNews();
  void takeSignal();
  bool concernsCommand(int signal, int code, pid_t sender) const;

  const Signals& signals_;
  pid_t process_ = -1;
  bool stopped_ = false;
  bool ended_ = false;
  Ending ending_;
};

/// Waits until a file descriptor is readable.  False when it is not in time.
///   limit  negative: no limit
bool waitReadable(int file, std::chrono::milliseconds limit);

/// Ends this process as the command ended.
[[noreturn]] void endLike(const Ending& ending);

}  // namespace armrun
