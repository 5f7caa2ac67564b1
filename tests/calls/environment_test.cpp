// The results when ICU_DATA cannot be put into the environment. This program stands between the
// library and the C library's putenv.

#include <stdlib.h>

#include "CallTest.h"
#include "nextcall.h"
#include "tracefile.h"

namespace {

int failures = 0;

}  // namespace

extern "C" int putenv(char* text) __THROW;
extern "C" int putenv(char* text) __THROW {
  if (failures > 0) {
    --failures;
    return -1;
  }
  static auto* const REAL = armtest::nextCall<int(char*)>("putenv");
  return REAL(text);
}

namespace armtest {
namespace {

using RefusedEnvironment = CallsWithEngine;

TEST_F(RefusedEnvironment, IsMinus3OnceAndNotTriedAgain) {
  failures = 1;
  EXPECT_EQ(-3, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  failures = 1;
  EXPECT_EQ(0, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ(1, failures);
}

TEST_F(RefusedEnvironment, EmptiesTheFirstNameOnlyBecauseTheSecondIsNotRefused) {
  failures = 1;
  EXPECT_EQ(101, arm_init("name", "user", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 140, "user");
  expectSameBytes(expected, engine_.last());
}

TEST_F(RefusedEnvironment, IsMinus3ForALoginNameWithoutConversion) {
  failures = 1;
  char star[] = "*";
  EXPECT_EQ(-3, w_ArmInit(0, "name", star, 0, nullptr, 0));
  EXPECT_EQ('\0', star[0]);
  expectTaken(0);
}

TEST_F(RefusedEnvironment, IsTraced) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  EXPECT_EQ(101, w_ArmInit(0, "a", "u", 0, nullptr, 0));
  clearTrace();
  failures = 1;
  EXPECT_EQ(102, arm_getid(5, "name", "detail", 0, nullptr, 0));
  EXPECT_EQ(
      (Lines{"libarm:arm_getid ENTER", "intlGetICUConverter, ensure_ICU_DATA_EnvVarSet failed.",
             "  applID[5] transname[] transdetail[detail]", "libarm:arm_getid EXIT[102]"}),
      basicTexts(readTrace()));
}

}  // namespace
}  // namespace armtest
