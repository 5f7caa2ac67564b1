#pragma once

#include <gtest/gtest.h>

namespace armtest {

/// The number of seconds that one test may take: ARM_TEST_SECONDS of the environment, else 30.
unsigned secondsPerTest();

/// Arms an alarm for every test. A test that is still running when it goes off is named on standard
/// error, and the process is aborted: calls of the library wait without limit.
class Watchdog : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& test) override;
  void OnTestEnd(const testing::TestInfo& test) override;
};

}  // namespace armtest
