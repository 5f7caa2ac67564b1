#include "armcontract/EngineProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace armcontract {

namespace {

void redirectOutput(bool verbose) {
  const int target = verbose ? STDERR_FILENO : open("/dev/null", O_WRONLY | O_CLOEXEC);
  (void)dup2(target, STDOUT_FILENO);
  (void)dup2(target, STDERR_FILENO);
}

}  // namespace

void becomeEngine(pid_t parent, std::vector<std::string> command,
                  const std::optional<std::string>& prefix, bool verbose) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(EXIT_FAILURE);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  if (prefix) {
    (void)setenv("ARM_AGENT_PREFIX", prefix->c_str(), 1);
  } else {
    (void)unsetenv("ARM_AGENT_PREFIX");
  }
  redirectOutput(verbose);
  (void)execvp(arguments[0], arguments.data());
  _exit(127);
}

EngineProcess::EngineProcess(const std::vector<std::string>& command,
                             const std::optional<std::string>& prefix, bool verbose)
    : process_(-1) {
  (void)std::fflush(nullptr);
  const pid_t parent = getpid();
  process_ = fork();
  if (process_ == 0) becomeEngine(parent, command, prefix, verbose);
}

EngineProcess::~EngineProcess() {
  if (!running()) return;
  signal(SIGKILL);
  (void)waitpid(process_, nullptr, 0);
}

bool EngineProcess::running() {
  if (process_ <= 0) return false;
  if (waitpid(process_, nullptr, WNOHANG) == 0) return true;
  process_ = -1;
  return false;
}

void EngineProcess::signal(int number) const {
  if (process_ > 0) (void)kill(process_, number);
}

bool EngineProcess::ends(Duration limit) {
  return comesTrue(limit, [this] { return !running(); });
}

}  // namespace armcontract
