#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace armtest {

/// A program of the build tree that runs beside the test, with its output in a file.
class RunningCommand {
 public:
  enum class Terminal { none, its_own };

  /// Starts "NAME ARGUMENTS...".
  ///   terminal  its_own: it leads a session at a new terminal, as one started by a login does
  explicit RunningCommand(const std::string& name, const std::vector<std::string>& arguments,
                          Terminal terminal = Terminal::none);
  /// Kills it and everything in its process group.
  ~RunningCommand();
  RunningCommand(const RunningCommand&) = delete;
  RunningCommand& operator=(const RunningCommand&) = delete;

  pid_t process() const { return process_; }
  /// What it has written to standard output and error so far; not at a terminal.
  std::string output() const;
  /// Waits until the output contains a piece.
  bool says(const std::string& piece) const;

  void signal(int number) const;
  void signalGroup(int number) const;
  /// Writes to its terminal, as if typed.
  void type(const std::string& keys) const;
  /// Takes its terminal away.
  void hangUp();

  /// Waits for its end, or for being stopped too; returns the status as waitpid gives it.
  int wait(int flags = 0);

 private:
  pid_t process_ = -1;
  int terminal_ = -1;
  bool over_ = false;
  std::string file_;
};

}  // namespace armtest
