// The main function of every GoogleTest program: one clock per test, and no silent successes.

#include <gtest/gtest.h>

#include <cstdio>

#include "watchdog.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest& all = *testing::UnitTest::GetInstance();
  all.listeners().Append(new armtest::Watchdog);
  const int result = RUN_ALL_TESTS();
  if (GTEST_FLAG_GET(list_tests)) return result;
  if (all.test_to_run_count() == 0 || all.skipped_test_count() > 0) {
    std::fprintf(stderr, "nothing ran, or a test was skipped: that is a failure\n");
    return 1;
  }
  return result;
}
