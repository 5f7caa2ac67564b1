// The results when the library finds no memory. This program has its own malloc, made of the C
// library's by its name: nextCall would allocate on its way there.

#include <unistd.h>

#include <cstdlib>

#include "CallTest.h"
#include "process.h"

namespace {

/// Size of the text that the library keeps for the environment: "ICU_DATA", "=", the directory, 0.
constexpr size_t ENVIRONMENT_TEXT = 8 + 1 + 34 + 1;
size_t refused = ENVIRONMENT_TEXT;
bool refuse = false;
/// Allocations until one is refused, of whatever size; 0 for none.
int allocations_left = 0;

}  // namespace

extern "C" void* __libc_malloc(size_t size);

extern "C" void* malloc(size_t size) noexcept {
  if (allocations_left > 0 && --allocations_left == 0) return nullptr;
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

/// What an allocation that was refused during an opening leaves to the next ones.
enum Left { EVERYTHING, UTF8, NOTHING };

/// In a process of its own: refuses one allocation of the opening, then opens with all memory.
Left openAfterRefusal(int allocation) {
  return static_cast<Left>(exitCodeOf(forkChild([allocation]() -> int {
    allocations_left = allocation;
    const arm_int32_t first = SetExpectedCodeset("ISO-2022-JP");
    allocations_left = 0;
    if (first == 0) return EVERYTHING;
    if (first != -1003 && first != -3) return NOTHING;
    const arm_int32_t second = SetExpectedCodeset("ISO-2022-JP");
    if (second == 0) return EVERYTHING;
    return second == -1003 && SetExpectedCodeset("UTF-8") == 0 ? UTF8 : NOTHING;
  })));
}

int allocationsOfAnOpening() {
  return exitCodeOf(forkChild([] {
    constexpr int MANY = 1000;
    allocations_left = MANY;
    return SetExpectedCodeset("ISO-2022-JP") == 0 ? MANY - allocations_left : 0;
  }));
}

// ICU reads its table of the code sets' names once, and keeps a failure of that.
TEST_F(NoMemory, ForTheNamesOfCodesetsHidesThemForGoodButNotUTF8) {
  const int allocations = allocationsOfAnOpening();
  ASSERT_LT(5, allocations);
  int hidden = 0;
  for (int allocation = 1; allocation <= allocations; ++allocation) {
    const Left left = openAfterRefusal(allocation);
    EXPECT_NE(NOTHING, left) << allocation;
    if (left == UTF8) ++hidden;
  }
  EXPECT_LT(0, hidden);
  EXPECT_GT(allocations / 2, hidden);
}

}  // namespace
}  // namespace armtest
