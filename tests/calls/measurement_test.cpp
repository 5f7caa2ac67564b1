// arm_start, arm_update and arm_stop: what is accepted, the bytes that are posted, the ignore rule
// and the correlator that is handed back.

#include <climits>
#include <cstring>

#include "CallTest.h"

namespace armtest {
namespace {

using ArmStart = CallsWithEngine;
using ArmUpdate = CallsWithEngine;
using ArmStop = CallsWithEngine;
using IgnoreRule = CallsWithEngine;
using ReturnedCorrelator = CallsWithEngine;

// ---- arm_start ----------------------------------------------------------------------------------

TEST_F(ArmStart, RecordHoldsIdBlockAndTimeAtTheirOffsetsAndZerosElsewhere) {
  engine_.reply(3, 31);
  Bytes block = makeBlock(256, 1, 0x10);
  EXPECT_EQ(31, arm_start(8, 0, block.data(), 256));
  Bytes expected = blankRecord(3);
  putWord(expected, 12, 8);
  putBytes(expected, 20, block);
  putWord(expected, 276, 256);
  expectTimeOfNow(expected, engine_.last(), 280);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmStart, WithoutABlockSizeIs0WhateverTheCallerGave) {
  EXPECT_EQ(103, arm_start(8, 0, nullptr, 256));
  Bytes expected = blankRecord(3);
  putWord(expected, 12, 8);
  expectTimeOfNow(expected, engine_.last(), 280);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmStart, FlagsOfTheCallerAreDropped) {
  EXPECT_EQ(103, arm_start(8, -1, nullptr, 0));
  EXPECT_EQ(0U, word(engine_.last(), 16));
}

TEST_F(ArmStart, BlockOfFormat5SendsSize0AndNoBytes) {
  Bytes block = makeBlock(256, 5);
  EXPECT_EQ(103, arm_start(8, 0, block.data(), 256));
  Bytes expected = blankRecord(3);
  putWord(expected, 12, 8);
  expectTimeOfNow(expected, engine_.last(), 280);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmStart, AnyPositiveSizeSendsAll256Bytes) {
  Bytes block = makeBlock(256, 1);
  EXPECT_EQ(103, arm_start(8, 0, block.data(), 1));
  EXPECT_EQ(block, slice(engine_.last(), 20, 256));
  EXPECT_EQ(1U, word(engine_.last(), 276));
  EXPECT_EQ(103, arm_start(8, 0, block.data(), INT_MAX));
  EXPECT_EQ(block, slice(engine_.last(), 20, 256));
  EXPECT_EQ(0x7FFFFFFFU, word(engine_.last(), 276));
}

TEST_F(ArmStart, SizeOf0OrLessIsSentAsGivenWithoutTheBlock) {
  Bytes block = makeBlock(256, 1);
  EXPECT_EQ(103, arm_start(8, 0, block.data(), 0));
  EXPECT_EQ(Bytes(256, 0), slice(engine_.last(), 20, 256));
  EXPECT_EQ(103, arm_start(8, 0, block.data(), -3));
  EXPECT_EQ(Bytes(256, 0), slice(engine_.last(), 20, 256));
  EXPECT_EQ(0xFFFFFFFDU, word(engine_.last(), 276));
}

TEST_F(ArmStart, BlockAtAnOddAddressIsSent) {
  Bytes memory(3);
  const Bytes block = makeBlock(256, 1);
  memory.insert(memory.end(), block.begin(), block.end());
  EXPECT_EQ(103, arm_start(8, 0, memory.data() + 3, 256));
  EXPECT_EQ(block, slice(engine_.last(), 20, 256));
}

TEST_F(ArmStart, NegativeIdIsRejectedWithoutPosting) {
  EXPECT_EQ(-1, arm_start(-1, 0, nullptr, 0));
  EXPECT_EQ(-1, arm_start(INT_MIN, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmStart, Id0IsAccepted) {
  EXPECT_EQ(103, arm_start(0, 0, nullptr, 0));
  EXPECT_EQ(0U, word(engine_.last(), 12));
}

TEST_F(ArmStart, IgnoreIdIsAnOrdinaryTransactionId) {
  EXPECT_EQ(103, arm_start(2147483647, 0, nullptr, 0));
  EXPECT_EQ(0x7FFFFFFFU, word(engine_.last(), 12));
}

// ---- the ignore rule ----------------------------------------------------------------------------

Bytes ignoredBlock(uint8_t flags, int32_t format = 1) {
  Bytes block = makeBlock(256, format, flags);
  block[197] = 0x01;
  return block;
}

void expectIgnored(uint8_t flags, uint8_t flags_after, int32_t format = 1, int32_t id = 8) {
  Bytes block = ignoredBlock(flags, format);
  Bytes expected = block;
  expected[4] = flags_after;
  EXPECT_EQ(2147483647, arm_start(id, 0, block.data(), 256)) << int(flags);
  expectSameBytes(expected, block);
}

TEST_F(IgnoreRule, WithARequestBit20IsSetAndNothingElseChanges) {
  expectIgnored(0xC0, 0xE0);
  expectIgnored(0xE0, 0xE0);
  expectTaken(0);
}

TEST_F(IgnoreRule, WithoutARequestBit20IsInvertedNotCleared) {
  expectIgnored(0xA0, 0x80);
  expectIgnored(0x80, 0xA0);
  expectIgnored(0x90, 0xB0);
  expectTaken(0);
}

TEST_F(IgnoreRule, IsAppliedWhateverTheFormatWord) {
  expectIgnored(0xC0, 0xE0, 5);
  expectIgnored(0xA0, 0x80, 0);
  expectIgnored(0x80, 0xA0, -1);
  expectTaken(0);
}

TEST_F(IgnoreRule, IsAppliedBeforeTheIdIsChecked) {
  expectIgnored(0xC0, 0xE0, 1, -1);
  expectTaken(0);
}

TEST_F(IgnoreRule, IsAppliedWhateverTheSize) {
  Bytes block = ignoredBlock(0xC0);
  EXPECT_EQ(2147483647, arm_start(8, 0, block.data(), 0));
  block = ignoredBlock(0xC0);
  EXPECT_EQ(2147483647, arm_start(8, 0, block.data(), -1));
  expectTaken(0);
}

TEST_F(IgnoreRule, LooksAtBit01OfByte197Alone) {
  Bytes block = makeBlock(256, 1, 0xC0);
  block[197] = 0xFE;
  block[196] = block[198] = 0xFF;
  EXPECT_EQ(103, arm_start(8, 0, block.data(), 256));
  block = ignoredBlock(0x80);
  block[197] = 0xFF;
  EXPECT_EQ(2147483647, arm_start(8, 0, block.data(), 256));
  expectTaken(1);
}

TEST_F(IgnoreRule, NeedsTheBitOfAParentCorrelator) {
  Bytes block = ignoredBlock(0x60);
  EXPECT_EQ(103, arm_start(8, 0, block.data(), 256));
  EXPECT_EQ(0x60, block[4]);
  expectTaken(1);
}

TEST_F(IgnoreRule, ComesAfterTheEngine) {
  engine_.quit();
  Bytes block = ignoredBlock(0xC0);
  const Bytes before = block;
  EXPECT_EQ(-2, arm_start(8, 0, block.data(), 256));
  expectSameBytes(before, block);
}

// ---- the correlator that is handed back ---------------------------------------------------------

Bytes withCorrelator(const Bytes& block, const Correlator& correlator) {
  Bytes changed = block;
  changed[4] |= 0x20;
  putBytes(changed, 88, Bytes(correlator.begin(), correlator.end()));
  return changed;
}

using BlockCall = std::function<int32_t(void*)>;

const std::vector<BlockCall>& callsWithBlock() {
  static const std::vector<BlockCall> CALLS = {
      [](void* block) { return arm_start(8, 0, block, 256); },
      [](void* block) { return arm_transactionReport(8, 0, block, 256, 1, 0, 0, 0); },
      [](void* block) { return arm_transactionInstanceReport(8, 0, block, 256, 1, 0, 0, 0); },
  };
  return CALLS;
}

TEST_F(ReturnedCorrelator, IsStoredWithBit20WhenRequestedAndGiven) {
  const Correlator correlator = makeCorrelator(1);
  engine_.replyWithCorrelator(0, 50, 1, correlator);
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 1, 0x40);
    const Bytes expected = withCorrelator(block, correlator);
    EXPECT_EQ(50, call(block.data()));
    expectSameBytes(expected, block);
  }
  expectTaken(3);
}

TEST_F(ReturnedCorrelator, ReplacesTheParentsAndKeepsTheOtherFlags) {
  const Correlator correlator = makeCorrelator(9);
  engine_.replyWithCorrelator(0, 50, 0x80, correlator);
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 1, 0xD7);
    const Bytes sent = block;
    const Bytes expected = withCorrelator(block, correlator);
    EXPECT_EQ(50, call(block.data()));
    EXPECT_EQ(0xF7, block[4]);
    expectSameBytes(expected, block);
    // The engine got the parent's.
    const size_t offset = word(engine_.last(), 8) == 3 ? 20 : 32;
    expectSameBytes(sent, slice(engine_.last(), offset, 256));
  }
}

TEST_F(ReturnedCorrelator, WithoutTheFlagOfTheReplyTheBlockStaysUnchanged) {
  engine_.replyWithCorrelator(0, 50, 0, makeCorrelator(1));
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 1, 0x40);
    const Bytes before = block;
    EXPECT_EQ(50, call(block.data()));
    expectSameBytes(before, block);
  }
}

TEST_F(ReturnedCorrelator, WithoutARequestTheBlockStaysUnchanged) {
  engine_.replyWithCorrelator(0, 50, 1, makeCorrelator(1));
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 1, 0xB0);
    const Bytes before = block;
    EXPECT_EQ(50, call(block.data()));
    expectSameBytes(before, block);
  }
}

TEST_F(ReturnedCorrelator, IsStoredWhateverTheFormatWord) {
  const Correlator correlator = makeCorrelator(1);
  engine_.replyWithCorrelator(0, 50, 1, correlator);
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 5, 0x40);
    const Bytes expected = withCorrelator(block, correlator);
    EXPECT_EQ(50, call(block.data()));
    expectSameBytes(expected, block);
  }
}

TEST_F(ReturnedCorrelator, IsStoredWithANegativeResultToo) {
  const Correlator correlator = makeCorrelator(1);
  engine_.replyWithCorrelator(0, -5, 1, correlator);
  for (const BlockCall& call : callsWithBlock()) {
    Bytes block = makeBlock(256, 1, 0x40);
    const Bytes expected = withCorrelator(block, correlator);
    EXPECT_EQ(-5, call(block.data()));
    expectSameBytes(expected, block);
  }
}

TEST_F(ReturnedCorrelator, IsStoredInABlockAtAnOddAddress) {
  const Correlator correlator = makeCorrelator(1);
  engine_.replyWithCorrelator(0, 50, 1, correlator);
  for (const BlockCall& call : callsWithBlock()) {
    Bytes memory(1);
    const Bytes block = makeBlock(256, 1, 0x40);
    memory.insert(memory.end(), block.begin(), block.end());
    memory.push_back(0xAA);
    EXPECT_EQ(50, call(memory.data() + 1));
    expectSameBytes(withCorrelator(block, correlator), slice(memory, 1, 256));
    EXPECT_EQ(0, memory[0]);
    EXPECT_EQ(0xAA, memory[257]);
  }
}

TEST_F(ReturnedCorrelator, WithoutABlockIsLost) {
  engine_.replyWithCorrelator(0, 50, 1, makeCorrelator(1));
  for (const BlockCall& call : callsWithBlock()) EXPECT_EQ(50, call(nullptr));
}

TEST_F(ReturnedCorrelator, NeverComesBackFromUpdateOrStop) {
  engine_.replyWithCorrelator(0, 50, 1, makeCorrelator(1));
  Bytes block = makeBlock(256, 1, 0x40);
  const Bytes before = block;
  EXPECT_EQ(50, arm_update(8, 0, block.data(), 256));
  EXPECT_EQ(50, arm_stop(8, 0, 0, block.data(), 256));
  expectSameBytes(before, block);
}

TEST_F(ReturnedCorrelator, IsNotStoredWhenTheWaitFails) {
  engine_.hold();
  Bytes block = makeBlock(256, 1, 0x40);
  const Bytes before = block;
  CallInThread call([&] { return arm_start(8, 0, block.data(), 256); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  const Bytes record = engine_.last();
  EXPECT_TRUE(
      engine_.cancel(static_cast<int32_t>(word(record, 0)), static_cast<int32_t>(word(record, 4))));
  EXPECT_EQ(-9, call.result());
  expectSameBytes(before, block);
}

// ---- arm_update ---------------------------------------------------------------------------------

TEST_F(ArmUpdate, RecordOfAFormat1BlockHolds256BytesAndTheFlags) {
  Bytes block = makeBlock(1024, 1);
  EXPECT_EQ(104, arm_update(6, 0x0A0B0C0D, block.data(), 256));
  Bytes expected = blankRecord(4);
  putWord(expected, 12, 6);
  putWord(expected, 16, 0x0A0B0C0D);
  putBytes(expected, 20, slice(block, 0, 256));
  putWord(expected, 1044, 256);
  expectTimeOfNow(expected, engine_.last(), 1048);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmUpdate, RecordOfAFormat2BlockHolds1024Bytes) {
  Bytes block = makeBlock(1024, 2);
  EXPECT_EQ(104, arm_update(6, 0, block.data(), 1024));
  Bytes expected = blankRecord(4);
  putWord(expected, 12, 6);
  putBytes(expected, 20, block);
  putWord(expected, 1044, 1024);
  expectTimeOfNow(expected, engine_.last(), 1048);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmUpdate, BlockOfAnotherFormatSendsSize0AndNoBytes) {
  for (const int32_t format : {0, 3, 101, -1}) {
    Bytes block = makeBlock(1024, format);
    EXPECT_EQ(104, arm_update(6, 0, block.data(), 1024));
    Bytes expected = blankRecord(4);
    putWord(expected, 12, 6);
    expectTimeOfNow(expected, engine_.last(), 1048);
    expectSameBytes(expected, engine_.last());
  }
}

TEST_F(ArmUpdate, SizeOfTheCallerIsSentAsGivenAndNotComparedWithWhatIsCopied) {
  Bytes block = makeBlock(1024, 2);
  for (const int32_t size : {0, -7, 1, 100000}) {
    EXPECT_EQ(104, arm_update(6, 0, block.data(), size));
    EXPECT_EQ(block, slice(engine_.last(), 20, 1024));
    EXPECT_EQ(static_cast<uint32_t>(size), word(engine_.last(), 1044));
  }
}

TEST_F(ArmUpdate, SizeWithoutABlockIsSentAs0) {
  EXPECT_EQ(104, arm_update(6, 0, nullptr, 1024));
  EXPECT_EQ(0U, word(engine_.last(), 1044));
}

TEST_F(ArmUpdate, IgnoreIdReturns0WithoutPosting) {
  EXPECT_EQ(0, arm_update(2147483647, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmUpdate, Handle0IsRejectedUnlikeInStop) {
  EXPECT_EQ(-1, arm_update(0, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmUpdate, NegativeHandleIsRejected) {
  EXPECT_EQ(-1, arm_update(-1, 0, nullptr, 0));
  EXPECT_EQ(-1, arm_update(INT_MIN, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmUpdate, IgnoredParentMakesNoDifference) {
  Bytes block = ignoredBlock(0xC0);
  const Bytes before = block;
  EXPECT_EQ(104, arm_update(6, 0, block.data(), 256));
  expectSameBytes(before, block);
  expectTaken(1);
}

// ---- arm_stop -----------------------------------------------------------------------------------

TEST_F(ArmStop, RecordHoldsHandleStatusFlagsBlockAndTime) {
  Bytes block = makeBlock(256, 1);
  EXPECT_EQ(105, arm_stop(6, 2, 0x0A0B0C0D, block.data(), 256));
  Bytes expected = blankRecord(5);
  putWord(expected, 12, 6);
  putWord(expected, 16, 2);
  putWord(expected, 20, 0x0A0B0C0D);
  putBytes(expected, 24, block);
  putWord(expected, 280, 256);
  expectTimeOfNow(expected, engine_.last(), 284);
  expectSameBytes(expected, engine_.last());
}

TEST_F(ArmStop, BlockOfAnyFormatIsSent) {
  for (const int32_t format : {0, 2, 5, 101}) {
    Bytes block = makeBlock(256, format);
    EXPECT_EQ(105, arm_stop(6, 0, 0, block.data(), 17));
    EXPECT_EQ(block, slice(engine_.last(), 24, 256));
    EXPECT_EQ(17U, word(engine_.last(), 280));
  }
}

TEST_F(ArmStop, SizeOf0OrLessIsSentAsGivenWithoutTheBlock) {
  Bytes block = makeBlock(256, 1);
  EXPECT_EQ(105, arm_stop(6, 0, 0, block.data(), 0));
  EXPECT_EQ(Bytes(256, 0), slice(engine_.last(), 24, 256));
  EXPECT_EQ(105, arm_stop(6, 0, 0, block.data(), -4));
  EXPECT_EQ(Bytes(256, 0), slice(engine_.last(), 24, 256));
  EXPECT_EQ(0xFFFFFFFCU, word(engine_.last(), 280));
}

TEST_F(ArmStop, SizeWithoutABlockIsSentAs0) {
  EXPECT_EQ(105, arm_stop(6, 0, 0, nullptr, 256));
  EXPECT_EQ(0U, word(engine_.last(), 280));
}

TEST_F(ArmStop, StatusIsSentAsGiven) {
  for (const int32_t status : {0, 1, 2, 3, -1, INT_MIN}) {
    EXPECT_EQ(105, arm_stop(6, status, 0, nullptr, 0));
    EXPECT_EQ(static_cast<uint32_t>(status), word(engine_.last(), 16));
  }
}

TEST_F(ArmStop, Handle0IsAcceptedUnlikeInUpdate) {
  EXPECT_EQ(105, arm_stop(0, 0, 0, nullptr, 0));
  EXPECT_EQ(0U, word(engine_.last(), 12));
  EXPECT_EQ(5U, word(engine_.last(), 8));
}

TEST_F(ArmStop, NegativeHandleIsRejected) {
  EXPECT_EQ(-1, arm_stop(-1, 0, 0, nullptr, 0));
  EXPECT_EQ(-1, arm_stop(INT_MIN, 0, 0, nullptr, 0));
  expectTaken(0);
}

TEST_F(ArmStop, IgnoreIdReturns0WithoutPosting) {
  EXPECT_EQ(0, arm_stop(2147483647, 1, 0, nullptr, 0));
  expectTaken(0);
}

}  // namespace
}  // namespace armtest
