// arm_init, arm_getid and arm_end: what is accepted, and the bytes that are posted.

#include <climits>

#include "CallTest.h"

namespace armtest {
namespace {

using ArmInit = CallsWithEngine;
using ArmGetId = CallsWithEngine;
using ArmEnd = CallsWithEngine;

std::string letters(size_t count) {
  std::string text(count, 'x');
  if (count > 0) text.back() = 'Z';
  return text;
}

// ---- arm_init -----------------------------------------------------------------------------------

TEST_F(ArmInit, RecordHoldsNamesAndFlagsAtTheirOffsetsAndZerosElsewhere) {
  engine_.reply(1, 77);
  EXPECT_EQ(77, arm_init("application", "user name", 0x01020304, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "application");
  putText(expected, 140, "user name");
  putWord(expected, 268, 0x01020304);
  expectTaken(1);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmInit, DataAndItsSizeAreNeverForwardedOnlyFlagsAre) {
  Bytes block = makeBlock(344, 101);
  EXPECT_EQ(101, arm_init("a", "u", -1, block.data(), 344));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "a");
  putText(expected, 140, "u");
  putWord(expected, 268, -1);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmInit, NameOf127CharactersIsAccepted) {
  const std::string name = letters(127);
  EXPECT_EQ(101, arm_init(name.c_str(), "u", 0, nullptr, 0));
  const Bytes record = engine_.last();
  EXPECT_EQ(name, textAt(record, 12, 128));
  EXPECT_EQ('Z', record[138]);
  EXPECT_EQ(0, record[139]);
}

TEST_F(ArmInit, NameOf128CharactersIsRejected) {
  EXPECT_EQ(-1, arm_init(letters(128).c_str(), "u", 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmInit, EmptyNameIsRejectedLikeOneThatIsTooLong) {
  EXPECT_EQ(-1, arm_init("", "u", 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmInit, NullNameIsRejected) {
  EXPECT_EQ(-1, arm_init(nullptr, "u", 0, nullptr, 0));
  EXPECT_EQ(-1, w_ArmInit(0, nullptr, nullptr, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmInit, UserOf127CharactersIsAccepted) {
  const std::string user = letters(127);
  EXPECT_EQ(101, arm_init("a", user.c_str(), 0, nullptr, 0));
  const Bytes record = engine_.last();
  EXPECT_EQ(user, textAt(record, 140, 128));
  EXPECT_EQ('Z', record[266]);
  EXPECT_EQ(0, record[267]);
}

TEST_F(ArmInit, UserOf128CharactersIsRejected) {
  EXPECT_EQ(-1, arm_init("a", letters(128).c_str(), 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmInit, VeryLongStringsAreRejectedNotRead) {
  const std::string text = letters(100000);
  EXPECT_EQ(-1, arm_init(text.c_str(), "u", 0, nullptr, 0));
  EXPECT_EQ(-1, arm_init("a", text.c_str(), 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmInit, NullUserIsTheEmptyUser) {
  EXPECT_EQ(101, arm_init("a", nullptr, 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "a");
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmInit, EmptyUserIsAccepted) {
  EXPECT_EQ(101, arm_init("a", "", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "a");
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmInit, WithoutConversionTheBytesGoUnchanged) {
  EXPECT_EQ(101, w_ArmInit(0, "n\xE9\xFF\x80", "\xC3\xA9\x01", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "n\xE9\xFF\x80");
  putText(expected, 140, "\xC3\xA9\x01");
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmInit, WithoutConversion127BytesAreTheLimitToo) {
  EXPECT_EQ(101, w_ArmInit(0, letters(127).c_str(), letters(127).c_str(), 0, nullptr, 0));
  EXPECT_EQ(-1, w_ArmInit(0, letters(128).c_str(), "u", 0, nullptr, 0));
  EXPECT_EQ(-1, w_ArmInit(0, "a", letters(128).c_str(), 0, nullptr, 0));
  EXPECT_EQ(-1, w_ArmInit(0, "", "u", 0, nullptr, 0));
  expectTaken(1);
}

TEST_F(ArmInit, ThroughputProbeIsRegisteredLikeAnyOther) {
  EXPECT_EQ(101, arm_init("ORV Mendoras Throughput Probe", "u", 0, nullptr, 0));
  EXPECT_EQ("ORV Mendoras Throughput Probe", textAt(engine_.last(), 12, 128));
}

// ---- arm_getid ----------------------------------------------------------------------------------

TEST_F(ArmGetId, RecordHoldsIdNamesAndBlockAtTheirOffsetsAndZerosElsewhere) {
  engine_.reply(2, 12);
  Bytes block = makeBlock(344, 101);
  EXPECT_EQ(12, arm_getid(9, "class", "detail", 0, block.data(), 344));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 9);
  putText(expected, 16, "class");
  putText(expected, 3636, "detail");
  putBytes(expected, 3768, block);
  putWord(expected, 4112, 344);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmGetId, FlagsOfTheCallerAreDropped) {
  EXPECT_EQ(102, arm_getid(9, "class", "detail", 0x7FFFFFFF, nullptr, 0));
  EXPECT_EQ(0U, word(engine_.last(), 3764));
}

TEST_F(ArmGetId, NameOf3619CharactersEndsAtByte3634WithAZeroAt3635) {
  const std::string name = letters(3619);
  EXPECT_EQ(102, arm_getid(9, name.c_str(), "", 0, nullptr, 0));
  const Bytes record = engine_.last();
  EXPECT_EQ(name, textAt(record, 16, 3620));
  EXPECT_EQ('Z', record[3634]);
  EXPECT_EQ(0, record[3635]);
}

TEST_F(ArmGetId, NameOf3620CharactersIsRejected) {
  EXPECT_EQ(-1, arm_getid(9, letters(3620).c_str(), "", 0, nullptr, 0));
  EXPECT_EQ(-1, w_ArmGetID(0, 9, letters(3620).c_str(), "", 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmGetId, EmptyOrMissingNameIsRejected) {
  EXPECT_EQ(-1, arm_getid(9, "", "d", 0, nullptr, 0));
  EXPECT_EQ(-1, arm_getid(9, nullptr, "d", 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmGetId, DetailOf127CharactersIsAcceptedAnd128Rejected) {
  const std::string detail = letters(127);
  EXPECT_EQ(102, arm_getid(9, "n", detail.c_str(), 0, nullptr, 0));
  const Bytes record = engine_.last();
  EXPECT_EQ(detail, textAt(record, 3636, 128));
  EXPECT_EQ('Z', record[3762]);
  EXPECT_EQ(0, record[3763]);
  EXPECT_EQ(-1, arm_getid(9, "n", letters(128).c_str(), 0, nullptr, 0));
  expectTaken(1);
}

TEST_F(ArmGetId, NullDetailIsTheEmptyDetail) {
  EXPECT_EQ(102, arm_getid(9, "n", nullptr, 0, nullptr, 0));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 9);
  putText(expected, 16, "n");
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmGetId, ApplicationIdMustBePositive) {
  EXPECT_EQ(-1, arm_getid(0, "n", "d", 0, nullptr, 0));
  EXPECT_EQ(-1, arm_getid(-1, "n", "d", 0, nullptr, 0));
  EXPECT_EQ(-1, arm_getid(INT_MIN, "n", "d", 0, nullptr, 0));
  expectTaken(0);
  EXPECT_EQ(102, arm_getid(INT_MAX, "n", "d", 0, nullptr, 0));
  EXPECT_EQ(0x7FFFFFFFU, word(engine_.last(), 12));
}

TEST_F(ArmGetId, BlockOfFormat1SendsDataSize0AndNoBytes) {
  Bytes block = makeBlock(344, 1);
  EXPECT_EQ(102, arm_getid(9, "n", "d", 0, block.data(), 344));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 9);
  putText(expected, 16, "n");
  putText(expected, 3636, "d");
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmGetId, SizeWithoutABlockIsSentAs0) {
  EXPECT_EQ(102, arm_getid(9, "n", "d", 0, nullptr, 344));
  EXPECT_EQ(0U, word(engine_.last(), 4112));
}

TEST_F(ArmGetId, NegativeSizeIsSentAsGivenButNoBlock) {
  Bytes block = makeBlock(344, 101);
  EXPECT_EQ(102, arm_getid(9, "n", "d", 0, block.data(), -5));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 9);
  putText(expected, 16, "n");
  putText(expected, 3636, "d");
  putWord(expected, 4112, -5);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmGetId, AnyPositiveSizeSendsAll344Bytes) {
  Bytes block = makeBlock(344, 101);
  EXPECT_EQ(102, arm_getid(9, "n", "d", 0, block.data(), 1));
  const Bytes record = engine_.last();
  EXPECT_EQ(block, slice(record, 3768, 344));
  EXPECT_EQ(1U, word(record, 4112));
}

TEST_F(ArmGetId, BlockAtAnOddAddressIsRead) {
  Bytes memory(1);
  const Bytes block = makeBlock(344, 101);
  memory.insert(memory.end(), block.begin(), block.end());
  EXPECT_EQ(102, arm_getid(9, "n", "d", 0, memory.data() + 1, 344));
  EXPECT_EQ(block, slice(engine_.last(), 3768, 344));
}

TEST_F(ArmGetId, WithoutConversionTheBytesGoUnchanged) {
  EXPECT_EQ(102, w_ArmGetID(0, 9, "\xFF\xFE", "\x80", 3, nullptr, 0));
  Bytes expected = blankRecord(2);
  putWord(expected, 12, 9);
  putText(expected, 16, "\xFF\xFE");
  putText(expected, 3636, "\x80");
  expectSameBytes(expected, engine_.last());
}

// ---- arm_end ------------------------------------------------------------------------------------

TEST_F(ArmEnd, RecordHoldsTheIdAloneFlagsAndDataAreIgnored) {
  Bytes block = makeBlock(256, 1);
  EXPECT_EQ(106, arm_end(9, 0x55, block.data(), 256));
  Bytes expected = blankRecord(6);
  putWord(expected, 12, 9);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmEnd, IdThatIsNotPositiveIsRejectedWithoutPosting) {
  EXPECT_EQ(-1, arm_end(0, 0, nullptr, 0));
  EXPECT_EQ(-1, arm_end(-1, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmEnd, ValueOfIgnoredTransactionsIsAnOrdinaryApplicationId) {
  EXPECT_EQ(106, arm_end(2147483647, 0, nullptr, 0));
  expectTaken(1);
}

}  // namespace
}  // namespace armtest
