// How often a call gives its processor away.

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdio>
#include <string>

#include "CountingEngine.h"

namespace armtest {

namespace {

constexpr int kCalls = 300;

/// Keeps this process, and those that it starts, on the processor that it runs on.
void stayOnOneProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
  ASSERT_EQ(0, sched_setaffinity(0, sizeof one, &one));
}

long sleepsOf(int calls) {
  const std::string command =
      std::string(ARM_BUILD_DIR) + "/bin/counts_client sleeps " + std::to_string(calls);
  FILE* output = popen(command.c_str(), "r");
  if (output == nullptr) return -1;
  long sleeps = -1;
  const int read = std::fscanf(output, "%ld", &sleeps);
  return pclose(output) == 0 && read == 1 ? sleeps : -1;
}

// On one processor a call sleeps until its reply is there, and now and then for a lock that the
// engine holds just then.
TEST(Sleeps, ACallSleepsForItsReplyAndHardlyEverBesides) {
  stayOnOneProcessor();
  const CountingEngine engine(CountingEngine::Ring::empty);
  ASSERT_TRUE(engine.isReady());
  const long sleeps = sleepsOf(kCalls);
  std::printf("sleeps per call: %.2f\n", static_cast<double>(sleeps) / kCalls);
  EXPECT_GE(sleeps, 0) << "counts_client failed";
  EXPECT_LE(sleeps, kCalls * 3 / 2);
}

}  // namespace

}  // namespace armtest
