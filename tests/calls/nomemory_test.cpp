// The results when the library finds no memory. This program has its own malloc.

#include <unistd.h>

#include <cstdlib>

#include "CallTest.h"

namespace {

/// Size of the text that the library keeps for the environment: "ICU_DATA", "=", the directory, 0.
constexpr size_t kEnvironmentText = 8 + 1 + 34 + 1;
size_t refused = kEnvironmentText;
bool refuse = false;

}  // namespace

extern "C" void* __libc_malloc(size_t size);

extern "C" void* malloc(size_t size) noexcept {
  return refuse && size == refused ? nullptr : __libc_malloc(size);
}

namespace armtest {
namespace {

using NoMemory = CallsWithEngine;

TEST_F(NoMemory, ForTheEnvironmentIsMinus3FromTheRegistrations) {
  refuse = true;
  EXPECT_EQ(-3, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_EQ(-3, arm_getid(5, "n", "d", 0, nullptr, 0));
  EXPECT_EQ(-3, SetExpectedCodeset("UTF-8"));
  expectTaken(0);
  EXPECT_EQ(101, w_ArmInit(0, "a", "u", 0, nullptr, 0));
  refuse = false;
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
}

TEST_F(NoMemory, ForALongerEnvironmentIsMinus3OnceAndNotTriedAgain) {
  unsetenv("ICU_DATA");
  size_t entries = 0;
  while (environ[entries] != nullptr) ++entries;
  // One entry more, the end, and the list that was published before.
  refused = (entries + 3) * sizeof(char*);
  refuse = true;
  EXPECT_EQ(-3, SetExpectedCodeset("UTF-8"));
  refuse = false;
  EXPECT_EQ(nullptr, getenv("ICU_DATA"));
  EXPECT_EQ(0, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ(nullptr, getenv("ICU_DATA"));
}

}  // namespace
}  // namespace armtest
