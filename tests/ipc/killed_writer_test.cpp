// A writer that is killed between any two of its instructions: what the others then find.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "RawQueues.h"
#include "ipc/CIPCSimpleQueue.h"

namespace {

using Queue = CIPCSimpleQueue<TArmMessage>;

constexpr const char* kName = "/var/kelp/controls_ae.kelp";
constexpr uint16_t kCapacity = 3;

/// Runs a process that opens the queue and then does something with it, one instruction at a time,
/// with a look in between.  Returns the number of instructions.
unsigned long stepThrough(const std::function<void(Queue&)>& act,
                          const std::function<void()>& look) {
  const pid_t child = fork();
  if (child == 0) {
    Queue queue(kName);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)raise(SIGSTOP);
    act(queue);
    _exit(0);
  }
  unsigned long steps = 0;
  int status = 0;
  while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
    look();
    ++steps;
    if (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0) break;
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  return steps;
}

/// Puts twice; between all instructions the count says how far the tail is from the head.
void putTwice(bool front) {
  raw::RequestQueue ring(kCapacity);
  ring.setRing(0, 1, 1);
  unsigned long torn = 0;
  uint16_t largest = 0;
  const auto look = [&] {
    uint16_t words[4];
    std::memcpy(words, ring.memory.at(0), sizeof words);
    if ((words[1] + words[0]) % kCapacity != words[2]) ++torn;
    if (words[0] > largest) largest = words[0];
  };
  const auto act = [&](Queue& queue) {
    TArmMessage message = {};
    for (int i = 0; i < 2; ++i) {
      if (queue.PrivatePut(message, front) != 0) _exit(1);
    }
  };
  EXPECT_LT(1000UL, stepThrough(act, look));
  EXPECT_EQ(0UL, torn);
  EXPECT_EQ(2, largest);
}

TEST(KilledWriter, LeavesACountedRecordOrNoneAtEveryInstruction) {
  putTwice(false);
}

TEST(KilledWriter, LeavesACountedRecordOrNoneAtEveryInstructionInFront) {
  putTwice(true);
}

}  // namespace
