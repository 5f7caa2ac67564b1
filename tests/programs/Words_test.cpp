#include "common/Words.h"

#include <gtest/gtest.h>

namespace {

TEST(Words, NumbersOfThingsAgree) {
  EXPECT_EQ("1 process", armtools::counted(1, "process"));
  EXPECT_EQ("0 processes", armtools::counted(0, "process"));
  EXPECT_EQ("2 users", armtools::counted(2, "user"));
}

}  // namespace
