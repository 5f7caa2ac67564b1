#include "common/Program.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

int returnTheCount(int count, char** /*arguments*/) {
  return count;
}

int fail(int /*count*/, char** /*arguments*/) {
  throw std::runtime_error("no memory is left");
}

TEST(GuardedProgram, EndsAsItsBodyDoes) {
  EXPECT_EQ(7, armtools::guarded("armstat", returnTheCount, 7, nullptr, 4));
}

TEST(GuardedProgram, SaysWhatWasThrownAndEndsWithTheGivenCode) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(4, armtools::guarded("armstat", fail, 1, nullptr, 4));
  EXPECT_EQ("armstat: no memory is left\n", testing::internal::GetCapturedStderr());
}

}  // namespace
