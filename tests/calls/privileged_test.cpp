// The environment of whoever starts a program with raised privileges (set-user-id, capabilities of
// its file): the kernel marks such a program in its auxiliary vector, and so does this test, which
// needs no privileges for that.

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdlib>

#include "CallTest.h"
#include "tracefile.h"

namespace armtest {
namespace {

constexpr const char* CLIENT = ARM_BUILD_DIR "/bin/privileged_client";
constexpr int NO_ENGINE = 254;  // -2 as an exit code

#if __SIZEOF_POINTER__ == 4
constexpr size_t STACK_POINTER = offsetof(user_regs_struct, esp);
#else
constexpr size_t STACK_POINTER = offsetof(user_regs_struct, rsp);
#endif

/// The memory of a stopped process as words.
class Words {
 public:
  explicit Words(pid_t process) : process_(process) {}
  unsigned long at(unsigned long address) const {
    errno = 0;
    const long value = ptrace(PTRACE_PEEKDATA, process_, address, nullptr);
    EXPECT_EQ(0, errno) << "at " << address;
    return static_cast<unsigned long>(value);
  }
  void put(unsigned long address, unsigned long value) const {
    EXPECT_EQ(0, ptrace(PTRACE_POKEDATA, process_, address, value));
  }
  /// Behind the next zero word.
  unsigned long behindZero(unsigned long address) const {
    while (at(address) != 0 && !testing::Test::HasFailure()) address += sizeof(long);
    return address + sizeof(long);
  }

 private:
  pid_t process_;
};

/// Marks a program that has just been executed as one with raised privileges.
void markAsPrivileged(pid_t process) {
  const Words words(process);
  const long stack = ptrace(PTRACE_PEEKUSER, process, STACK_POINTER, nullptr);
  const unsigned long environment =
      words.behindZero(static_cast<unsigned long>(stack) + sizeof(long));
  unsigned long entry = words.behindZero(environment);
  while (words.at(entry) != AT_SECURE) {
    ASSERT_NE(static_cast<unsigned long>(AT_NULL), words.at(entry));
    entry += 2 * sizeof(long);
  }
  ASSERT_EQ(0U, words.at(entry + sizeof(long)));
  words.put(entry + sizeof(long), 1);
}

class CallersEnvironment : public CallsWithEngine {
 protected:
  void SetUp() override {
    CallsWithEngine::SetUp();
    setenv("ARMDEBUG", "1", 1);
    setenv("ARMDEBUGFORMAT", "basic", 1);
    setenv("ARM_AGENT_PREFIX", "nobody", 1);
  }

  /// Runs the client; its exit code.
  static int run(bool privileged) {
    const pid_t client = forkChild([] {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      execl(CLIENT, CLIENT, nullptr);
      return 127;
    });
    int status = 0;
    EXPECT_EQ(client, waitpid(client, &status, 0));
    EXPECT_TRUE(WIFSTOPPED(status)) << CLIENT << " was not executed: " << status;
    if (privileged) markAsPrivileged(client);
    EXPECT_EQ(0, ptrace(PTRACE_DETACH, client, nullptr, nullptr));
    return exitCodeOf(client);
  }
};

TEST_F(CallersEnvironment, SteersAProgramWithoutPrivileges) {
  EXPECT_EQ(NO_ENGINE, run(false));
  expectTaken(0);
  const std::string trace = readTrace();
  EXPECT_NE(std::string::npos, trace.find(" - Debug run found in caller's environment.\n"));
  EXPECT_EQ(std::string::npos, trace.find("<Trace>"));
}

TEST_F(CallersEnvironment, SteersNoProgramWithRaisedPrivileges) {
  EXPECT_EQ(101, run(true));
  expectTaken(1);
  EXPECT_FALSE(traceExists());
}

}  // namespace
}  // namespace armtest
