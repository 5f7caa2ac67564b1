// Children forked by a signal handler that has interrupted a call: at any of its instructions, and
// in its wait.
//
// ARM_FORK_EVERY is the distance of the instructions that are tried.

#include <malloc.h>
#include <signal.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>

#include "CallTest.h"
#include "counted.h"
#include "fork_calls.h"
#include "setting.h"

namespace armtest {
namespace {

constexpr long TRAP_FLAG = 0x100;
constexpr unsigned SHORT_EVERY = 17;

uint32_t every() {
  return settingOr("ARM_FORK_EVERY", SHORT_EVERY);
}

// What the handlers know.
unsigned instructions_left = 0;
volatile pid_t child = -1;
int (*in_childs_handler)() = nullptr;

/// Forks; a child that has something to do in the handler ends there.
void forkInHandler() {
  child = fork();
  if (child == 0 && in_childs_handler != nullptr) _exit(in_childs_handler());
}

void afterInstruction(int, siginfo_t*, void* context) {
  if (--instructions_left > 0) return;
  // The processor goes on without the flag, in both processes.
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~TRAP_FLAG;
  forkInHandler();
}

/// From the next instruction on, the processor traps after each.
__attribute__((always_inline)) inline void beginTraps() {
#if __SIZEOF_POINTER__ == 4
  __asm__ volatile("pushf; orl $0x100, (%%esp); popf" ::: "memory", "cc");
#else
  __asm__ volatile("sub $128, %%rsp; pushf; orl $0x100, (%%rsp); popf; add $128, %%rsp" ::
                       : "memory", "cc");
#endif
}

__attribute__((always_inline)) inline void endTraps() {
#if __SIZEOF_POINTER__ == 4
  __asm__ volatile("pushf; andl $~0x100, (%%esp); popf" ::: "memory", "cc");
#else
  __asm__ volatile("sub $128, %%rsp; pushf; andl $~0x100, (%%rsp); popf; add $128, %%rsp" ::
                       : "memory", "cc");
#endif
}

class ForkingHandlers : public testing::Test {
 protected:
  void SetUp() override {
    in_childs_handler = nullptr;
    // What is freed is written over.
    mallopt(M_PERTURB, 0xa5);
    start();
    ASSERT_EQ(0, wrongAnswersOfEveryCall(1));
  }

  void start() {
    EngineSetup setup;
    setup.requesters = 128;
    ASSERT_TRUE(engine_.start(setup));
    engine_.derive();
  }

  static void handle(int number, void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(0, sigaction(number, &action, nullptr));
  }

  /// Makes a call and forks after that many of its instructions; false when it has fewer.
  template <typename Call>
  static bool forkAfter(unsigned instructions, Call&& call, int32_t expected) {
    child = -1;
    instructions_left = instructions;
    beginTraps();
    const int32_t result = call();
    endTraps();
    if (child == 0) _exit(result == expected ? wrongAnswersOfEveryCall(70000) : 90);
    EXPECT_EQ(expected, result) << "the parent, after instruction " << instructions;
    if (child < 0) return false;
    EXPECT_EQ(0, exitCodeOf(child)) << "after instruction " << instructions;
    return true;
  }

  /// The number of instructions after which a child was forked.
  template <typename Call>
  unsigned forkAtInstructions(Call&& call, int32_t expected, unsigned distance) {
    handle(SIGTRAP, afterInstruction);
    unsigned forks = 0;
    for (unsigned number = 1; !HasFailure() && forkAfter(number, call, expected);
         number += distance) {
      ++forks;
      (void)engine_.reclaim();
    }
    EXPECT_LT(400U, forks * distance) << "the instructions were not counted";
    return forks;
  }

  ScriptedEngine engine_;
};

// The argument is refused when the connection has been looked at.
TEST_F(ForkingHandlers, AtAnyInstructionOfARefusedCallTheChildEndsItAndMakesEveryCall) {
  const unsigned forks =
      forkAtInstructions([] { return arm_update(-5, 0, nullptr, 0); }, -1, every());
  counted("a fork in a signal handler, the child returns to a refused call", forks);
}

// A trap takes longer than all else; the more instructions, the fewer are tried.
TEST_F(ForkingHandlers, AtAnyInstructionOfACallTheChildMakesEveryCallInTheHandler) {
  in_childs_handler = [] { return wrongAnswersOfEveryCall(80000); };
  const unsigned forks =
      forkAtInstructions([] { return arm_start(5, 0, nullptr, 0); }, derivedResult(5), 4 * every());
  counted("a fork in a signal handler, the child calls in it", forks);
}

TEST_F(ForkingHandlers, InAWaitTheChildsCallEndsWithTheEngineAndTheNextOnesAreServed) {
  handle(SIGUSR1, [](int, siginfo_t*, void*) { forkInHandler(); });
  engine_.forget();
  engine_.hold();
  int to_child[2];
  ASSERT_EQ(0, pipe(to_child));
  const uint32_t before = engine_.taken();
  std::atomic<pthread_t> waiting{};
  CallInThread call([&] {
    waiting.store(pthread_self());
    const int32_t result = arm_start(5, 0, nullptr, 0);
    if (child != 0) return result;
    char go = 0;
    if (read(to_child[0], &go, 1) != 1) _exit(91);
    // The connection to the new engine is another one.
    _exit(result == -9 ? wrongAnswersOfEveryCall(90000) : 90);
  });
  ASSERT_TRUE(engine_.waitTaken(before + 1) && engine_.waitSleepers(1));
  ASSERT_EQ(0, pthread_kill(waiting.load(), SIGUSR1));
  ASSERT_TRUE(engine_.waitSleepers(2));
  engine_.quit();
  EXPECT_EQ(-9, call.result());
  start();
  ASSERT_EQ(1, write(to_child[1], "g", 1));
  EXPECT_EQ(0, exitCodeOf(child));
  EXPECT_EQ(0, wrongAnswersOfEveryCall(2));
  counted("a fork in a signal handler during a wait", 1);
}

}  // namespace
}  // namespace armtest
