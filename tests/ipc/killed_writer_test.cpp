// A writer that is killed between any two of its instructions: what the others then find.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "counted.h"
#include "ipc/CIPCSimpleQueue.h"
#include "rawqueues.h"

namespace armtest {
namespace {

using Queue = CIPCSimpleQueue<TArmMessage>;

constexpr const char* RING_NAME = "/var/kelp/controls_ae.kelp";
constexpr uint16_t CAPACITY = 3;

/// Runs a process that opens the queue and then does something with it, one instruction at a time,
/// with a look in between.  Returns the number of instructions.
unsigned long stepThrough(const std::function<void(Queue&)>& act,
                          const std::function<void()>& look) {
  const pid_t child = fork();
  if (child == 0) {
    Queue queue(RING_NAME);
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

/// A record of one byte again and again.
TArmMessage patternOf(uint8_t byte) {
  TArmMessage message = {};
  std::memset(static_cast<void*>(&message), byte, sizeof message);
  return message;
}

/// Each byte is the same as the next.  It is asked at every instruction, hence by one comparison.
bool isWhole(const Bytes& record) {
  return record[0] != 0 && std::memcmp(&record[0], &record[1], record.size() - 1) == 0;
}

/// What is seen of a ring at some instructions of a writer.
struct Sight {
  unsigned long torn = 0;     ///< the tail is not where the count says
  unsigned long partial = 0;  ///< a record that counts is not whole
  uint16_t largest = 0;

  void look(RequestQueue& ring) {
    uint16_t words[4];
    std::memcpy(words, ring.memory.at(0), sizeof words);
    if ((words[1] + words[0]) % CAPACITY != words[2]) ++torn;
    for (uint16_t i = 0; i < words[0]; ++i) {
      if (!isWhole(ring.slot(static_cast<size_t>((words[1] + i) % CAPACITY)))) ++partial;
    }
    largest = std::max(largest, words[0]);
  }
};

/// Puts twice; between all instructions the count says how far the tail is from the head, and each
/// record that counts is whole.
void putTwice(bool front) {
  RequestQueue ring(CAPACITY);
  ring.setRing(0, 1, 1);
  Sight sight;
  const auto act = [&](Queue& queue) {
    for (const uint8_t byte : {uint8_t{0x11}, uint8_t{0x22}}) {
      if (queue.PrivatePut(patternOf(byte), front) != 0) _exit(1);
    }
  };
  const unsigned long steps = stepThrough(act, [&] { sight.look(ring); });
  EXPECT_LT(1000UL, steps);
  EXPECT_EQ(0UL, sight.torn);
  EXPECT_EQ(0UL, sight.partial);
  EXPECT_EQ(2, sight.largest);
  counted("instructions of a writer between which the ring was looked at", steps);
}

TEST(KilledWriter, LeavesACountedRecordOrNoneAtEveryInstruction) {
  putTwice(false);
}

TEST(KilledWriter, LeavesACountedRecordOrNoneAtEveryInstructionInFront) {
  putTwice(true);
}

}  // namespace
}  // namespace armtest
