#include "armrun/Command.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "armrun/Options.h"
#include "common/Program.h"

namespace armrun {

namespace {

sigset_t setOf(int signal) {
  sigset_t set;
  (void)sigemptyset(&set);
  (void)sigaddset(&set, signal);
  return set;
}

void setAction(int signal, void (*handler)(int), struct sigaction* before) {
  struct sigaction action = {};
  action.sa_handler = handler;
  (void)sigaction(signal, &action, before);
}

/// Signals that a terminal sends to its whole foreground group, and so to the command too.
bool isOfTerminal(int signal) {
  switch (signal) {
    case SIGINT:
    case SIGQUIT:
    case SIGTSTP:
    case SIGTTIN:
    case SIGTTOU:
    case SIGWINCH:
    case SIGHUP:
    case SIGCONT:
      return true;
    default:
      return false;
  }
}

/// Stops this process as the terminal would have stopped it; returns when it is continued.
void stopBy(int signal) {
  struct sigaction before = {};
  setAction(signal, SIG_DFL, &before);
  // Sent to the process while it is blocked: together with one that the terminal has sent, it still
  // is one signal.
  (void)kill(getpid(), signal);
  const sigset_t set = setOf(signal);
  (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
  (void)sigaction(signal, &before, nullptr);
}

[[noreturn]] void execute(char** command, char** environment, pid_t parent,
                          const Signals& signals) {
  // Of all signals, armrun cannot pass on the one that kills it.
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(FAILED);
  signals.restore();
  (void)execvpe(command[0], command, environment);
  const int error = errno;
  armtools::complain("armrun",
                     std::string("cannot run ") + command[0] + ": " + std::strerror(error), 0);
  _exit(error == ENOENT ? NOT_FOUND : CANNOT_EXECUTE);
}

}  // namespace

Signals::Signals() {
  sigset_t all;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_BLOCK, &all, &before_);
  // Where SIGCHLD is ignored, the kernel keeps no exit statuses.
  setAction(SIGCHLD, SIG_DFL, &child_action_);
  event_ = signalfd(-1, &all, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool Signals::deliver() const {
  sigset_t all;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
  return !waitReadable(event_, std::chrono::milliseconds(0));
}

void Signals::restore() const {
  (void)sigaction(SIGCHLD, &child_action_, nullptr);
  (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

Command::Command(char** command, char** environment, const Signals& signals) : signals_(signals) {
  const pid_t self = getpid();
  process_ = fork();
  if (process_ == 0) execute(command, environment, self, signals);
  if (process_ > 0) return;
  armtools::complain("armrun", std::string("cannot make a process: ") + std::strerror(errno), 0);
  ended_ = true;
  ending_ = {false, FAILED};
}

Ending Command::waitForEnd() {
  takeNews();
  while (!ended_) {
    (void)waitReadable(signals_.event(), std::chrono::milliseconds(-1));
    takeSignal();
  }
  return ending_;
}

/// Takes what has become of the command.  Several changes may come with one SIGCHLD.
void Command::takeNews() {
  while (!ended_) {
    siginfo_t news = {};
    if (waitid(P_PID, static_cast<id_t>(process_), &news,
               WEXITED | WSTOPPED | WCONTINUED | WNOHANG) != 0) {
      if (errno == EINTR) continue;
      ended_ = true;
      ending_ = {false, FAILED};
      return;
    }
    if (news.si_pid == 0) return;
    stopped_ = news.si_code == CLD_STOPPED;
    ended_ = news.si_code == CLD_EXITED || news.si_code == CLD_KILLED || news.si_code == CLD_DUMPED;
    if (ended_) ending_ = {news.si_code != CLD_EXITED, news.si_status};
    // Somebody who stops the command alone continues it alone, and would leave armrun stopped.
    if (stopped_ && news.si_status != SIGSTOP) stopBy(news.si_status);
  }
}

void Command::takeSignal() {
  signalfd_siginfo info = {};
  if (read(signals_.event(), &info, sizeof info) != sizeof info) return;
  const auto signal = static_cast<int>(info.ssi_signo);
  takeNews();
  if (ended_ || !concernsCommand(signal, info.ssi_code, static_cast<pid_t>(info.ssi_pid))) return;
  if (info.ssi_code == SI_QUEUE) {
    sigval value = {};
    value.sival_int = info.ssi_int;
    (void)sigqueue(process_, signal, value);
  } else {
    (void)kill(process_, signal);
  }
}

bool Command::concernsCommand(int signal, int code, pid_t sender) const {
  if (signal == SIGCHLD) return false;
  // Continuing a job reaches the command too; only one that is still stopped needs it.
  if (signal == SIGCONT) return stopped_;
  const bool from_kernel = code > 0;
  // A hang-up reaches the leader of a session only.
  if (from_kernel && signal == SIGHUP) return getsid(0) == getpid();
  if (from_kernel) return !isOfTerminal(signal);
  // The command's own signal to its group has reached it already.
  return sender != process_;
}

bool waitReadable(int file, std::chrono::milliseconds limit) {
  pollfd one = {file, POLLIN, 0};
  return poll(&one, 1, static_cast<int>(limit.count())) == 1;
}

void endLike(const Ending& ending) {
  if (!ending.by_signal) _exit(ending.value);
  // The command has left a core file already if it was to.
  const rlimit none = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);
  setAction(ending.value, SIG_DFL, nullptr);
  (void)kill(getpid(), ending.value);
  const sigset_t set = setOf(ending.value);
  (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  // Only the first process of a container comes here.
  _exit(128 + ending.value);
}

}  // namespace armrun
