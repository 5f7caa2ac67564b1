#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace armtest {

/// A program of this build tree.
std::string builtProgram(const std::string& name);

/// What a command did.
struct Ran {
  int status = -1;  ///< exit code, or 128 + signal
  std::string out;
  std::string err;
};

/// Runs a shell command to its end.
Ran runShell(const std::string& command);

/// Lines of a text that contain a piece.
size_t linesWith(const std::string& text, const std::string& piece);

/// The words of the first line that contains all pieces; none when there is no such line.
std::vector<std::string> wordsOfLine(const std::string& text,
                                     const std::vector<std::string>& pieces);

/// A running armengine.
class EngineProcess {
 public:
  /// Starts it, from a build tree, and waits for its first line.
  explicit EngineProcess(const std::vector<std::string>& arguments = {"--report"},
                         const std::string& build_dir = ARM_BUILD_DIR);
  /// Kills it when it still runs.
  ~EngineProcess();
  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  pid_t process() const { return process_; }
  /// The line that it printed when it was ready; empty when it ended instead.
  const std::string& ready() const { return ready_; }
  /// The next line of its output, waited for; empty when it has ended.
  std::string nextLine();
  void signal(int number) const;
  /// Sends a signal and waits for its end; returns the exit code.
  int end(int number);
  /// What it has printed after the first line; complete when it has ended.
  const std::string& report() const { return report_; }

 private:
  pid_t process_ = -1;
  std::FILE* output_ = nullptr;
  std::string ready_;
  std::string report_;
};

}  // namespace armtest
