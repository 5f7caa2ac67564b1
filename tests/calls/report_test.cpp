// The reports, completions, metric data and the correlator key.

#include <climits>

#include "CallTest.h"

namespace armtest {
namespace {

using Reports = CallsWithEngine;
using Completions = CallsWithEngine;
using MetricData = CallsWithEngine;
using CorrelatorKey = Calls;

struct ReportCall {
  int32_t type;
  int32_t (*call)(int32_t, int32_t, void*, int32_t, int32_t, int32_t, int32_t, int32_t);
};

constexpr ReportCall REPORTS[] = {{16, arm_transactionReport}, {17, arm_transactionInstanceReport}};

struct CompletionCall {
  int32_t type;
  int32_t (*call)(int32_t, int32_t, int32_t);
};

constexpr CompletionCall COMPLETIONS[] = {{15, arm_completeTransaction},
                                          {18, arm_completeTransactionInstance}};

// ---- reports ------------------------------------------------------------------------------------

TEST_F(Reports, RecordHoldsHandleValuesBlockAndTimeButNotTheSecondArgument) {
  for (const ReportCall& report : REPORTS) {
    Bytes block = makeBlock(256, 1);
    EXPECT_EQ(100 + report.type, report.call(3, 0x66666666, block.data(), 256, 1, 4, 5, 6));
    Bytes expected = blankRecord(report.type);
    putWord(expected, 12, 3);
    putWord(expected, 16, 4);
    putWord(expected, 20, 5);
    putWord(expected, 24, 6);
    putBytes(expected, 32, block);
    putWord(expected, 288, 256);
    expectTimeOfNow(expected, engine_.last(), 292);
    expectSameBytes(expected, engine_.last());
  }
}

TEST_F(Reports, WithoutATimeStampTheTimeIs0) {
  for (const ReportCall& report : REPORTS) {
    EXPECT_EQ(100 + report.type, report.call(3, 0, nullptr, 0, 0, 4, 5, 6));
    EXPECT_EQ(Bytes(8, 0), slice(engine_.last(), 292, 8));
  }
}

TEST_F(Reports, AnyTimeStampArgumentButZeroAsksForTheTime) {
  for (const ReportCall& report : REPORTS) {
    for (const int32_t stamp : {1, -1, INT_MIN}) {
      EXPECT_EQ(100 + report.type, report.call(3, 0, nullptr, 0, stamp, 4, 5, 6));
      Bytes expected = blankRecord(report.type);
      putWord(expected, 12, 3);
      putWord(expected, 16, 4);
      putWord(expected, 20, 5);
      putWord(expected, 24, 6);
      expectTimeOfNow(expected, engine_.last(), 292);
      expectSameBytes(expected, engine_.last());
    }
  }
}

TEST_F(Reports, IgnoreIdReturns0WithoutPostingBeforeTheValuesAreChecked) {
  for (const ReportCall& report : REPORTS) {
    EXPECT_EQ(0, report.call(2147483647, 0, nullptr, 0, 1, -1, -1, -1));
  }
  expectTaken(0);
}

TEST_F(Reports, NegativeHandleOrOneOfTheFirstTwoValuesIsRejected) {
  for (const ReportCall& report : REPORTS) {
    EXPECT_EQ(-1, report.call(-1, 0, nullptr, 0, 1, 4, 5, 6));
    EXPECT_EQ(-1, report.call(3, 0, nullptr, 0, 1, -1, 5, 6));
    EXPECT_EQ(-1, report.call(3, 0, nullptr, 0, 1, 4, -1, 6));
  }
  expectTaken(0);
}

TEST_F(Reports, ThirdValueIsNotChecked) {
  for (const ReportCall& report : REPORTS) {
    EXPECT_EQ(100 + report.type, report.call(3, 0, nullptr, 0, 1, 4, 5, -1));
    EXPECT_EQ(0xFFFFFFFFU, word(engine_.last(), 24));
  }
}

TEST_F(Reports, HandleAndValuesOf0AreAccepted) {
  for (const ReportCall& report : REPORTS) {
    EXPECT_EQ(100 + report.type, report.call(0, -1, nullptr, 0, 0, 0, 0, 0));
    expectSameBytes(blankRecord(report.type), engine_.last());
  }
}

TEST_F(Reports, BlockOfAnotherFormatSendsSize0AndNoBytes) {
  for (const ReportCall& report : REPORTS) {
    Bytes block = makeBlock(256, 2);
    EXPECT_EQ(100 + report.type, report.call(0, 0, block.data(), 256, 0, 0, 0, 0));
    expectSameBytes(blankRecord(report.type), engine_.last());
  }
}

TEST_F(Reports, IgnoredParentMakesNoDifference) {
  for (const ReportCall& report : REPORTS) {
    Bytes block = makeBlock(256, 1, 0xC0);
    block[197] = 1;
    const Bytes before = block;
    EXPECT_EQ(100 + report.type, report.call(0, 0, block.data(), 256, 0, 0, 0, 0));
    expectSameBytes(before, block);
    expectSameBytes(before, slice(engine_.last(), 32, 256));
  }
}

// ---- completions --------------------------------------------------------------------------------

TEST_F(Completions, RecordHoldsHandleValuesAndTime) {
  for (const CompletionCall& completion : COMPLETIONS) {
    EXPECT_EQ(100 + completion.type, completion.call(3, 4, -5));
    Bytes expected = blankRecord(completion.type);
    putWord(expected, 12, 3);
    putWord(expected, 16, 4);
    putWord(expected, 20, -5);
    expectTimeOfNow(expected, engine_.last(), 24);
    expectSameBytes(expected, engine_.last());
  }
}

TEST_F(Completions, IgnoreIdReturns0WithoutPostingBeforeTheValuesAreChecked) {
  for (const CompletionCall& completion : COMPLETIONS) {
    EXPECT_EQ(0, completion.call(2147483647, -1, -1));
  }
  expectTaken(0);
}

TEST_F(Completions, NegativeHandleOrFirstValueIsRejected) {
  for (const CompletionCall& completion : COMPLETIONS) {
    EXPECT_EQ(-1, completion.call(-1, 0, 0));
    EXPECT_EQ(-1, completion.call(0, -1, 0));
  }
  expectTaken(0);
}

TEST_F(Completions, HandleAndValuesOf0AreAccepted) {
  for (const CompletionCall& completion : COMPLETIONS) {
    EXPECT_EQ(100 + completion.type, completion.call(0, 0, 0));
  }
  expectTaken(2);
}

// ---- metric data --------------------------------------------------------------------------------

TEST_F(MetricData, RecordHoldsHandleLengthAndBytesAndNoTime) {
  const Bytes data = makeBlock(100, 1234);
  EXPECT_EQ(119, arm_associateMetricData(3, data.data(), 100));
  Bytes expected = blankRecord(19);
  putWord(expected, 12, 3);
  putWord(expected, 16, 100);
  putBytes(expected, 20, data);
  expectSameBytes(expected, engine_.last());
}

TEST_F(MetricData, Length4096FillsTheRecordToItsLastByte) {
  const Bytes data = makeBlock(4096, 1234);
  EXPECT_EQ(119, arm_associateMetricData(3, data.data(), 4096));
  Bytes expected = blankRecord(19);
  putWord(expected, 12, 3);
  putWord(expected, 16, 4096);
  putBytes(expected, 20, data);
  expectSameBytes(expected, engine_.last());
  EXPECT_EQ(data.back(), engine_.last()[4115]);
}

TEST_F(MetricData, Length1IsAccepted) {
  const uint8_t byte = 0x5A;
  EXPECT_EQ(119, arm_associateMetricData(0, &byte, 1));
  EXPECT_EQ(0x5A, engine_.last()[20]);
  EXPECT_EQ(0, engine_.last()[21]);
}

TEST_F(MetricData, Lengths4097And0AndLessAreRejected) {
  const Bytes data(5000);
  for (const int32_t length : {4097, INT_MAX, 0, -1, INT_MIN}) {
    EXPECT_EQ(-1, arm_associateMetricData(3, data.data(), length));
  }
  expectTaken(0);
}

TEST_F(MetricData, MissingBufferOrNegativeHandleIsRejected) {
  EXPECT_EQ(-1, arm_associateMetricData(3, nullptr, 4));
  EXPECT_EQ(-1, arm_associateMetricData(-1, "data", 4));
  expectTaken(0);
}

TEST_F(MetricData, IgnoreIdReturns0WithoutPostingBeforeTheBufferIsChecked) {
  EXPECT_EQ(0, arm_associateMetricData(2147483647, nullptr, -1));
  expectTaken(0);
}

TEST_F(MetricData, BufferAtAnOddAddressIsSent) {
  const Bytes data = makeBlock(10, 1);
  EXPECT_EQ(119, arm_associateMetricData(3, data.data() + 1, 9));
  EXPECT_EQ(slice(data, 1, 9), slice(engine_.last(), 20, 9));
}

// ---- the correlator key -------------------------------------------------------------------------

TEST_F(CorrelatorKey, IsNamedWithoutAnEngine) {
  EXPECT_STREQ("ARM_CORRELATOR", arm_getCorrelatorKey());
}

TEST_F(CorrelatorKey, PostsNothing) {
  ASSERT_TRUE(engine_.start());
  EXPECT_STREQ("ARM_CORRELATOR", arm_getCorrelatorKey());
  EXPECT_EQ(0U, engine_.taken());
}

}  // namespace
}  // namespace armtest
