#include "RunningCommand.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "files.h"
#include "process.h"
#include "programs.h"

namespace armtest {

namespace {

int openTerminal() {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  return terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0 ? terminal : -1;
}

/// In the new process: standard input is the terminal, and it controls the session.
bool takeTerminal(const char* name) {
  if (setsid() < 0) return false;
  const int terminal = open(name, O_RDWR);
  return terminal >= 0 && ioctl(terminal, TIOCSCTTY, 0) == 0 && dup2(terminal, STDIN_FILENO) >= 0;
}

std::string newFile() {
  char name[] = "/tmp/output-XXXXXX";
  const int file = mkstemp(name);
  EXPECT_GE(file, 0);
  close(file);
  return name;
}

}  // namespace

RunningCommand::RunningCommand(const std::string& name, const std::vector<std::string>& arguments,
                               Terminal terminal)
    : file_(newFile()) {
  std::string program = builtProgram(name);
  std::vector<std::string> copies = arguments;
  std::vector<char*> pointers = {program.data()};
  for (std::string& argument : copies) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::string terminal_name;
  if (terminal == Terminal::its_own) {
    terminal_ = openTerminal();
    EXPECT_GE(terminal_, 0);
    terminal_name = ptsname(terminal_);
  }
  process_ = forkChild([&] {
    if (terminal == Terminal::none && setpgid(0, 0) != 0) return 126;
    if (terminal == Terminal::its_own && !takeTerminal(terminal_name.c_str())) return 126;
    const int output = open(file_.c_str(), O_WRONLY | O_APPEND);
    if (dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0) return 126;
    close(output);
    execv(program.c_str(), pointers.data());
    return 127;
  });
  // Whoever of the two is first.
  if (terminal == Terminal::none) (void)setpgid(process_, process_);
}

RunningCommand::~RunningCommand() {
  if (process_ > 0) (void)kill(-process_, SIGKILL);
  if (!over_) (void)wait();
  if (terminal_ >= 0) close(terminal_);
}

std::string RunningCommand::output() const {
  return contentOf(file_);
}

bool RunningCommand::says(const std::string& piece) const {
  return waitUntil([&] { return output().find(piece) != std::string::npos; });
}

void RunningCommand::signal(int number) const {
  EXPECT_EQ(0, kill(process_, number));
}

void RunningCommand::signalGroup(int number) const {
  EXPECT_EQ(0, kill(-process_, number));
}

void RunningCommand::type(const std::string& keys) const {
  EXPECT_EQ(static_cast<ssize_t>(keys.size()), write(terminal_, keys.data(), keys.size()));
}

void RunningCommand::hangUp() {
  EXPECT_EQ(0, close(terminal_));
  terminal_ = -1;
}

int RunningCommand::wait(int flags) {
  int status = -1;
  while (waitpid(process_, &status, flags) < 0 && errno == EINTR) continue;
  over_ = WIFEXITED(status) || WIFSIGNALED(status);
  return status;
}

}  // namespace armtest
