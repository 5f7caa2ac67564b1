#include "TracedEngine.h"

#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "EngineProcess.h"
#include "Queues.h"

namespace armcontract {

namespace {

constexpr int CALL_STOP = SIGTRAP | 0x80;
constexpr long OPTIONS = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                         PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;

void goOn(pid_t task, int signal) {
  (void)ptrace(PTRACE_SYSCALL, task, nullptr, static_cast<long>(signal));
}

}  // namespace

TracedEngine::TracedEngine(const std::vector<std::string>& command,
                           const std::optional<std::string>& prefix, bool verbose) {
  const pid_t parent = getpid();
  const pid_t engine = fork();
  if (engine == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(127);
    (void)raise(SIGSTOP);
    becomeEngine(parent, command, prefix, verbose);
  }
  int status = 0;
  const bool stopped = waitpid(engine, &status, __WALL) == engine && WIFSTOPPED(status);
  if (stopped) tasks_.insert(engine);
  if (stopped && ptrace(PTRACE_SETOPTIONS, engine, nullptr, OPTIONS) == 0) return;
  if (stopped) (void)kill(engine, SIGKILL);
  throw Unchecked("this process may not trace an engine");
}

TracedEngine::~TracedEngine() {
  for (const pid_t task : tasks_) (void)kill(task, SIGKILL);
  int status = 0;
  while (!tasks_.empty()) {
    const pid_t task = waitpid(-1, &status, __WALL);
    if (task < 0) return;
    if (!WIFSTOPPED(status)) {
      tasks_.erase(task);
    } else {
      tasks_.insert(task);
      (void)kill(task, SIGKILL);
    }
  }
}

bool TracedEngine::runUntil(Duration limit, const std::function<bool()>& enough) {
  for (const pid_t task : tasks_) goOn(task, 0);
  const auto end = Clock::now() + limit;
  while (!tasks_.empty() && Clock::now() < end) {
    int status = 0;
    const pid_t task = next(&status);
    if (task > 0 && handle(task, status, enough)) return true;
  }
  return false;
}

pid_t TracedEngine::next(int* status) {
  // Most stops are a moment apart.
  constexpr int GLANCES = 1000;
  for (int i = 0; i < GLANCES; ++i) {
    const pid_t task = waitpid(-1, status, __WALL | WNOHANG);
    if (task > 0) return task;
    (void)sched_yield();
  }
  pause();
  return 0;
}

/// Whether enough has been seen: the task then stays where it is.
bool TracedEngine::handle(pid_t task, int status, const std::function<bool()>& enough) {
  if (!WIFSTOPPED(status)) {
    tasks_.erase(task);
    return false;
  }
  const bool is_new = tasks_.insert(task).second;
  const int signal = WSTOPSIG(status);
  if (signal == CALL_STOP && enough()) return true;
  // Stops that the tracing itself makes carry no signal for the engine.
  const bool is_own = is_new || signal == CALL_STOP || status >> 16 != 0;
  goOn(task, is_own ? 0 : signal);
  return false;
}

}  // namespace armcontract
