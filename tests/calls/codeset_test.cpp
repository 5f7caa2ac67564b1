// The conversion of the names in the registration calls, seen in the records that the engine takes.

#include <clocale>
#include <cstdlib>
#include <cstring>

#include "CallTest.h"

namespace armtest {
namespace {

/// In the C locale, whatever the environment of the test run. The ICU of the supported systems
/// takes UTF-8 as the default code set of every locale.
class Codeset : public CallsWithEngine {
 protected:
  void SetUp() override {
    setenv("LC_ALL", "C", 1);
    CallsWithEngine::SetUp();
  }
};

std::string applName(const Bytes& record) {
  return textAt(record, 12, 128);
}
std::string userName(const Bytes& record) {
  return textAt(record, 140, 128);
}
std::string tranName(const Bytes& record) {
  return textAt(record, 16, 3620);
}
std::string tranDetail(const Bytes& record) {
  return textAt(record, 3636, 128);
}

std::string repeated(const char* text, size_t times) {
  std::string all;
  for (; times > 0; --times) all += text;
  return all;
}

// CESU-8 is the code set in which a short string can fail: a lone surrogate has no UTF-8 form.
constexpr const char* FAILING = "\xED\xA0\x80";

void expectCodesetOfFailures() {
  ASSERT_EQ(0, SetExpectedCodeset("CESU-8"));
}

TEST_F(Codeset, Latin1NamesArriveInUtf8) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
  EXPECT_EQ(101, arm_init("caf\xE9", "M\xFCller", 0, nullptr, 0));
  EXPECT_EQ("caf\xC3\xA9", applName(engine_.last()));
  EXPECT_EQ("M\xC3\xBCller", userName(engine_.last()));
  EXPECT_EQ(102, arm_getid(5, "na\xEFve", "\xA7", 0, nullptr, 0));
  EXPECT_EQ("na\xC3\xAFve", tranName(engine_.last()));
  EXPECT_EQ("\xC2\xA7", tranDetail(engine_.last()));
}

TEST_F(Codeset, EveryNonZeroConvertArgumentConverts) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  for (const uint8_t convert : Bytes{1, 2, 255}) {
    EXPECT_EQ(101, w_ArmInit(convert, "\xE9", "\xE9", 0, nullptr, 0));
    EXPECT_EQ("\xC3\xA9", applName(engine_.last()));
    EXPECT_EQ("\xC3\xA9", userName(engine_.last()));
    EXPECT_EQ(102, w_ArmGetID(convert, 5, "\xE9", "\xE9", 0, nullptr, 0));
    EXPECT_EQ("\xC3\xA9", tranName(engine_.last()));
  }
}

TEST_F(Codeset, WithoutConversionTheCodesetDoesNotMatterAndNoConverterIsOpened) {
  EXPECT_EQ(101, w_ArmInit(0, "\xE9", "\xE9", 0, nullptr, 0));
  EXPECT_EQ(102, w_ArmGetID(0, 5, "\xE9", "\xE9", 0, nullptr, 0));
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(101, w_ArmInit(0, "\xE9", "\xE9", 0, nullptr, 0));
  EXPECT_EQ("\xE9", applName(engine_.last()));
}

TEST_F(Codeset, DefaultOfAUtf8LocaleLeavesUtf8AsItIs) {
  ASSERT_NE(nullptr, setlocale(LC_ALL, "C.utf8"));
  EXPECT_EQ(101, arm_init("caf\xC3\xA9 \xF0\x9F\x98\x80", "\xE2\x82\xAC", 0, nullptr, 0));
  EXPECT_EQ("caf\xC3\xA9 \xF0\x9F\x98\x80", applName(engine_.last()));
  EXPECT_EQ("\xE2\x82\xAC", userName(engine_.last()));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
}

TEST_F(Codeset, MalformedInputIsSubstitutedAndCountsAsSuccess) {
  ASSERT_NE(nullptr, setlocale(LC_ALL, "C.utf8"));
  EXPECT_EQ(101, arm_init("a\xFFz", "u", 0, nullptr, 0));
  EXPECT_EQ("a\xEF\xBF\xBDz", applName(engine_.last()));
}

TEST_F(Codeset, DefaultOfTheCLocaleSubstitutesWhatItDoesNotKnow) {
  EXPECT_EQ(101, arm_init("plain", "caf\xE9", 0, nullptr, 0));
  EXPECT_EQ("plain", applName(engine_.last()));
  EXPECT_EQ("caf\xEF\xBF\xBD", userName(engine_.last()));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
}

TEST_F(Codeset, IsFixedByTheFirstConversion) {
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_EQ(-3004, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
  EXPECT_EQ(-3004, SetExpectedCodeset(nullptr));
}

TEST_F(Codeset, IsFixedByTheFirstChoice) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-3004, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ(-3004, SetExpectedCodeset("no such code set"));
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
}

TEST_F(Codeset, UnknownNameIsMinus1003AndTheNextConversionTakesTheLocales) {
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
}

TEST_F(Codeset, NullNameChoosesTheLocales) {
  ASSERT_NE(nullptr, setlocale(LC_ALL, "C.utf8"));
  EXPECT_EQ(0, SetExpectedCodeset(nullptr));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
}

TEST_F(Codeset, OwnIcuDataOfTheApplicationIsReplacedAtTheFirstConversion) {
  setenv("ICU_DATA", "/somewhere", 1);
  EXPECT_EQ(102, w_ArmGetID(0, 5, "n", "d", 0, nullptr, 0));
  EXPECT_STREQ("/somewhere", getenv("ICU_DATA"));
  EXPECT_EQ(102, arm_getid(5, "n", "d", 0, nullptr, 0));
  EXPECT_STREQ("/var/orv/kestra/common/QDN/icudata", getenv("ICU_DATA"));
}

// ---- sizes --------------------------------------------------------------------------------------

TEST_F(Codeset, Utf8Of128BytesIsStoredAs127AndAZeroEvenIfThatCutsACharacter) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const std::string source = repeated("\xE9", 64);
  EXPECT_EQ(101, arm_init(source.c_str(), source.c_str(), 0, nullptr, 0));
  const std::string stored = repeated("\xC3\xA9", 63) + "\xC3";
  EXPECT_EQ(stored, applName(engine_.last()));
  EXPECT_EQ(0, engine_.last()[139]);
  EXPECT_EQ(stored, userName(engine_.last()));
  EXPECT_EQ(0, engine_.last()[267]);
  EXPECT_EQ(102, arm_getid(5, "n", source.c_str(), 0, nullptr, 0));
  EXPECT_EQ(stored, tranDetail(engine_.last()));
  EXPECT_EQ(0, engine_.last()[3763]);
}

TEST_F(Codeset, Utf8Of127BytesIsStoredWhole) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const std::string source = repeated("\xE9", 63) + "e";
  EXPECT_EQ(101, arm_init(source.c_str(), "u", 0, nullptr, 0));
  EXPECT_EQ(repeated("\xC3\xA9", 63) + "e", applName(engine_.last()));
}

TEST_F(Codeset, Utf8Of3620BytesIsStoredAs3619AndAZero) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(102, arm_getid(5, repeated("\xE9", 1810).c_str(), "d", 0, nullptr, 0));
  EXPECT_EQ(repeated("\xC3\xA9", 1809) + "\xC3", tranName(engine_.last()));
  EXPECT_EQ(0, engine_.last()[3635]);
}

TEST_F(Codeset, UserWhoseUtf8HasMoreThan128BytesIsMinus1003) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-1003, arm_init("a", repeated("\xE9", 65).c_str(), 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(Codeset, DetailWhoseUtf8HasMoreThan128BytesIsMinus1003) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-1003, arm_getid(5, "n", repeated("\xE9", 65).c_str(), 0, nullptr, 0));
  expectTaken(0);
}

// ---- only the second conversion decides ---------------------------------------------------------

TEST_F(Codeset, ApplicationNameThatCannotBeConvertedIsSentEmptyWithAGoodUser) {
  expectCodesetOfFailures();
  EXPECT_EQ(101, arm_init(FAILING, "user", 9, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 140, "user");
  putWord(expected, 268, 9);
  expectSameBytes(expected, engine_.last());
}

TEST_F(Codeset, UserThatCannotBeConvertedDecides) {
  expectCodesetOfFailures();
  EXPECT_EQ(-1003, arm_init("name", FAILING, 0, nullptr, 0));
  EXPECT_EQ(-1003, arm_init(FAILING, FAILING, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(Codeset, ClassNameThatCannotBeConvertedIsSentEmptyWithAGoodDetail) {
  expectCodesetOfFailures();
  EXPECT_EQ(102, arm_getid(5, FAILING, "detail", 0, nullptr, 0));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 5);
  putText(expected, 3636, "detail");
  expectSameBytes(expected, engine_.last());
}

TEST_F(Codeset, DetailThatCannotBeConvertedDecides) {
  expectCodesetOfFailures();
  EXPECT_EQ(-1003, arm_getid(5, "name", FAILING, 0, nullptr, 0));
  EXPECT_EQ(-1003, arm_getid(5, FAILING, FAILING, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(Codeset, NameThatIsTooLongInUtf8IsSentEmptyToo) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(101, arm_init(repeated("\xE9", 65).c_str(), "user", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 140, "user");
  expectSameBytes(expected, engine_.last());
  EXPECT_EQ(102, arm_getid(5, repeated("\xE9", 1811).c_str(), "detail", 0, nullptr, 0));
  expected = blankRecord(2);
  putWord(expected, 12, 5);
  putText(expected, 3636, "detail");
  expectSameBytes(expected, engine_.last());
}

// UTF-7 writes a zero character without a zero byte.
TEST_F(Codeset, NothingIsSentBehindAConvertedZeroCharacter) {
  ASSERT_EQ(0, SetExpectedCodeset("UTF-7"));
  EXPECT_EQ(101, arm_init("A+AAA-BCD", "E+AAA-FGH", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "A");
  putText(expected, 140, "E");
  expectSameBytes(expected, engine_.last());
  EXPECT_EQ(102, arm_getid(5, "I+AAA-JKL", "M+AAA-NOP", 0, nullptr, 0));
  expected = blankRecord(2);
  putWord(expected, 12, 5);
  putText(expected, 16, "I");
  putText(expected, 3636, "M");
  expectSameBytes(expected, engine_.last());
}

TEST_F(Codeset, NothingIsSentBehindAConvertedZeroCharacterOfAFieldThatIsFull) {
  ASSERT_EQ(0, SetExpectedCodeset("UTF-7"));
  const std::string full = "+AAA-" + std::string(122, 'x');
  EXPECT_EQ(101, arm_init(full.c_str(), full.c_str(), 0, nullptr, 0));
  expectSameBytes(blankRecord(1), engine_.last());
}

TEST_F(Codeset, ConverterWorksAfterAFailedConversion) {
  expectCodesetOfFailures();
  EXPECT_EQ(-1003, arm_init("name", FAILING, 0, nullptr, 0));
  EXPECT_EQ(101, arm_init("\xC3\xA9", "ok", 0, nullptr, 0));
  EXPECT_EQ("\xC3\xA9", applName(engine_.last()));
}

TEST_F(Codeset, RejectedArgumentsAreCheckedBeforeTheConversion) {
  expectCodesetOfFailures();
  EXPECT_EQ(-1, arm_init("", FAILING, 0, nullptr, 0));
  EXPECT_EQ(-1, arm_getid(0, "n", FAILING, 0, nullptr, 0));
}

}  // namespace
}  // namespace armtest
