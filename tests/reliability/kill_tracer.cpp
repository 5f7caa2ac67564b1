#include "kill_tracer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipcobjects.h"
#include "process.h"

namespace armtest {

namespace {

constexpr int SYSTEM_CALL = SIGTRAP | 0x80;
constexpr unsigned OPTIONS =
    PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;

/// A system call as it stands in the registers.
struct Registers {
  uint64_t number;
  uint64_t arguments[6];
};

/// A System V call, whichever way it was made.
struct Request {
  enum class Kind {
    none,
    operate,
    get_set,
    control_set,
    get_segment,
    attach,
    detach,
    control_segment,
    stat
  };
  Kind kind = Kind::none;
  int object = 0;
  int command = 0;
  uint64_t address = 0;  ///< of the operations, or of the path
  size_t count = 0;      ///< of operations
};

using Kind = Request::Kind;

int word(uint64_t argument) {
  return static_cast<int>(static_cast<uint32_t>(argument));
}

Request operate(uint64_t set, uint64_t address, uint64_t count) {
  return {Kind::operate, word(set), 0, address, static_cast<size_t>(count)};
}

#if defined(SYS_ipc)

/// All of them in one, told apart by the first argument.
Request multiplexed(const Registers& call) {
  const uint64_t* arguments = call.arguments;
  switch (arguments[0] & 0xffffU) {
    case 1:
    case 4:
      return operate(arguments[1], arguments[4], arguments[2]);
    case 2:
      return {Kind::get_set};
    case 3:
      return {Kind::control_set, word(arguments[1]), word(arguments[3])};
    case 21:
      return {Kind::attach};
    case 22:
      return {Kind::detach};
    case 23:
      return {Kind::get_segment};
    case 24:
      return {Kind::control_segment, word(arguments[1]), word(arguments[2])};
    default:
      return {};
  }
}

#endif

Request requestOf(const Registers& call) {
  const uint64_t* arguments = call.arguments;
  switch (call.number) {
#if defined(SYS_ipc)
    case SYS_ipc:
      return multiplexed(call);
#endif
#if defined(SYS_semop)
    case SYS_semop:
#endif
#if defined(SYS_semtimedop)
    case SYS_semtimedop:
#endif
#if defined(SYS_semtimedop_time64)
    case SYS_semtimedop_time64:
#endif
      return operate(arguments[0], arguments[1], arguments[2]);
    case SYS_semget:
      return {Kind::get_set};
    case SYS_semctl:
      return {Kind::control_set, word(arguments[0]), word(arguments[2])};
    case SYS_shmget:
      return {Kind::get_segment};
    case SYS_shmat:
      return {Kind::attach};
    case SYS_shmdt:
      return {Kind::detach};
    case SYS_shmctl:
      return {Kind::control_segment, word(arguments[0]), word(arguments[1])};
#if defined(SYS_newfstatat)
    case SYS_newfstatat:
#endif
    case SYS_statx:
      return {Kind::stat, 0, 0, arguments[1]};
    default:
      return {};
  }
}

/// Bytes of the memory of a traced process, a word at a time.
std::string memoryAt(pid_t thread, uint64_t address, size_t size) {
  std::string bytes;
  while (bytes.size() < size) {
    const auto place = static_cast<uintptr_t>(address + bytes.size());
    const long part = ptrace(PTRACE_PEEKDATA, thread, place, nullptr);
    bytes.append(reinterpret_cast<const char*>(&part), sizeof part);
  }
  bytes.resize(size);
  return bytes;
}

std::string textAt(pid_t thread, uint64_t address) {
  std::string text;
  while (text.find('\0') == std::string::npos) {
    text += memoryAt(thread, address + text.size(), sizeof(long));
  }
  return text.c_str();
}

const char* nameOfSet(int set) {
  struct Named {
    const char* name;
    const char* file;
    int project;
  };
  static const Named SETS[] = {{"requests", "ae.kelp_mem", 1},
                               {"empty", "ae.kelp_emp", 1},
                               {"overflow", "ae.kelp_ovr", 1},
                               {"replies", "ea.kelp", 1},
                               {"wake", "ea.kelp", 3}};
  for (const Named& one : SETS) {
    if (setAt(controlPath(one.file), one.project) == set) return one.name;
  }
  return "unknown";
}

std::string nameOfOperation(const sembuf& first) {
  if (first.sem_op == 0) return "lock";
  if (first.sem_op < 0) return (first.sem_flg & SEM_UNDO) != 0 ? "unlock" : "wait";
  return "raise";
}

std::string nameOfCommand(int command) {
  constexpr int WIDE = 0x100;
  switch (command & ~WIDE) {
    case IPC_RMID:
      return "remove";
    case IPC_STAT:
      return "look";
    case GETVAL:
      return "GETVAL";
    case GETPID:
      return "GETPID";
    case GETNCNT:
      return "GETNCNT";
    default:
      return "set";
  }
}

/// What a call does; empty for one of no interest.
std::string stepOf(pid_t thread, const Registers& call) {
  const Request request = requestOf(call);
  switch (request.kind) {
    case Kind::operate: {
      sembuf first = {};
      const std::string bytes = memoryAt(thread, request.address, sizeof first);
      std::memcpy(&first, bytes.data(), sizeof first);
      return std::string(nameOfSet(request.object)) + " " + nameOfOperation(first);
    }
    case Kind::control_set:
      return std::string(nameOfSet(request.object)) + " " + nameOfCommand(request.command);
    case Kind::control_segment:
      return "segment " + nameOfCommand(request.command);
    case Kind::get_set:
      return "semget";
    case Kind::get_segment:
      return "shmget";
    case Kind::attach:
      return "shmat";
    case Kind::detach:
      return "shmdt";
    case Kind::stat: {
      const std::string directory = controlPath("");
      const std::string path = textAt(thread, request.address);
      return path.rfind(directory, 0) == 0 ? "stat " + path.substr(directory.size()) : "";
    }
    case Kind::none:
      break;
  }
  return "";
}

}  // namespace

TracedProcess::TracedProcess(const std::function<void()>& prepare, const std::function<int()>& body)
    : process_(forkChild([&] {
        // A process group of its own, by which the tracer finds all threads and nothing else.
        setpgid(0, 0);
        prepare();
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        (void)raise(SIGSTOP);
        return body();
      })) {
  int status = 0;
  EXPECT_EQ(process_, waitpid(process_, &status, 0));
  EXPECT_TRUE(WIFSTOPPED(status)) << "not prepared: " << status;
  EXPECT_EQ(0, ptrace(PTRACE_SETOPTIONS, process_, nullptr, OPTIONS));
  threads_[process_] = {};
}

TracedProcess::~TracedProcess() {
  kill();
}

void TracedProcess::go() {
  for (auto& [id, thread] : threads_) {
    if (!thread.stopped) continue;
    thread.stopped = false;
    (void)ptrace(PTRACE_SYSCALL, id, nullptr, thread.signal);
    thread.signal = 0;
  }
}

/// Waits for anything that a thread reports; false when the process has ended.
bool TracedProcess::takeEvent(pid_t* id, int* status) {
  do {
    *id = waitpid(-process_, status, __WALL);
  } while (*id < 0 && errno == EINTR);
  if (*id < 0) return false;
  if (WIFSTOPPED(*status)) return true;
  threads_.erase(*id);
  if (*id == process_) {
    exit_code_ = WIFSIGNALED(*status) ? 128 + WTERMSIG(*status) : WEXITSTATUS(*status);
  }
  return exit_code_ < 0;
}

/// What a stopped thread has stopped at; nothing when it is of no interest.
std::optional<Stop> TracedProcess::stopOf(pid_t id, Thread& thread, int status) {
  const int signal = WSTOPSIG(status);
  if (signal != SYSTEM_CALL) {
    // A new thread begins with a stop, and events are no signals to it.
    if (signal != SIGSTOP && signal != SIGTRAP) thread.signal = signal;
    return std::nullopt;
  }
  __ptrace_syscall_info info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info) < 0) return std::nullopt;
  if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
    const std::string step = std::exchange(thread.step, "");
    return step.empty() ? std::nullopt : std::optional<Stop>({false, step});
  }
  Registers call = {info.entry.nr, {}};
  std::memcpy(call.arguments, info.entry.args, sizeof call.arguments);
  thread.step = stepOf(id, call);
  return thread.step.empty() ? std::nullopt : std::optional<Stop>({true, thread.step});
}

std::optional<Stop> TracedProcess::next() {
  for (;;) {
    go();
    pid_t id = -1;
    int status = 0;
    if (!takeEvent(&id, &status)) return std::nullopt;
    if (!WIFSTOPPED(status)) continue;
    Thread& thread = threads_[id];
    thread.stopped = true;
    std::optional<Stop> stop = stopOf(id, thread, status);
    if (stop) return stop;
  }
}

void TracedProcess::kill() {
  if (exit_code_ >= 0) return;
  (void)::kill(process_, SIGKILL);
  pid_t id = -1;
  int status = 0;
  while (takeEvent(&id, &status)) continue;
}

int TracedProcess::release() {
  if (exit_code_ >= 0) return exit_code_;
  for (const auto& [id, thread] : threads_) {
    (void)ptrace(PTRACE_DETACH, id, nullptr, thread.signal);
  }
  exit_code_ = exitCodeOf(process_);
  return exit_code_;
}

}  // namespace armtest
