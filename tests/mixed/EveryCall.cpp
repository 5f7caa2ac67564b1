#include "EveryCall.h"

#include <algorithm>
#include <cstring>

namespace armtest {

namespace {

const std::array<int32_t, MIXED_CALLS> TYPES = {1, 1, 2, 2, 3, 4, 4, 16, 17, 15, 18, 19, 5};

std::string tranName() {
  return std::string(3618, 'n') + "N";
}

void putBlock(Bytes& record, size_t offset, const Bytes& block, size_t size_offset) {
  putBytes(record, offset, block);
  putWord(record, size_offset, static_cast<int32_t>(block.size()));
}

Bytes initRecord(const char* name, const char* user, int32_t flags) {
  Bytes record = blankRecord(1);
  putText(record, 12, name);
  putText(record, 140, user);
  putWord(record, 268, flags);
  return record;
}

Bytes getidRecord(const std::string& name, const char* detail) {
  Bytes record = blankRecord(2);
  putWord(record, 12, 5);
  putText(record, 16, name);
  putText(record, 3636, detail);
  return record;
}

Bytes updateRecord(const Bytes& block) {
  Bytes record = blankRecord(4);
  putWord(record, 12, 0x7FFFFFFE);
  putWord(record, 16, 0x12345678);
  putBlock(record, 20, block, 1044);
  return record;
}

Bytes reportRecord(int32_t type) {
  Bytes record = blankRecord(type);
  putWord(record, 12, 7);
  putWord(record, 16, 8);
  putWord(record, 20, 9);
  putWord(record, 24, -10);
  putBlock(record, 32, makeBlock(256, 1, 0x40), 288);
  return record;
}

Bytes completionRecord(int32_t type) {
  Bytes record = blankRecord(type);
  putWord(record, 12, 11);
  putWord(record, 16, 12);
  putWord(record, 20, -13);
  return record;
}

std::vector<Bytes> expectedRecords() {
  std::vector<Bytes> records = {initRecord("caf\xC3\xA9", "user", -2),
                                initRecord("caf\xE9", "", 0x11), getidRecord(tranName(), "detail"),
                                getidRecord("\xFF", "")};
  putBlock(records[2], 3768, makeBlock(344, 101), 4112);
  Bytes start = blankRecord(3);
  putWord(start, 12, 6);
  putBlock(start, 20, makeBlock(256, 1, 0x40), 276);
  records.push_back(start);
  records.push_back(updateRecord(makeBlock(256, 1)));
  records.push_back(updateRecord(makeBlock(1024, 2)));
  records.push_back(reportRecord(16));
  records.push_back(reportRecord(17));
  records.push_back(completionRecord(15));
  records.push_back(completionRecord(18));
  Bytes metric = blankRecord(19);
  putWord(metric, 12, 14);
  putWord(metric, 16, 4096);
  putBytes(metric, 20, makeBlock(4096, 3));
  records.push_back(metric);
  Bytes stop = blankRecord(5);
  putWord(stop, 12, 0);
  putWord(stop, 16, -1);
  putWord(stop, 20, 0x22);
  putBlock(stop, 24, makeBlock(256, 5), 280);
  records.push_back(stop);
  return records;
}

}  // namespace

MixedOutcome makeEveryMixedCall() {
  (void)SetExpectedCodeset("ISO-8859-1");
  Bytes format1 = makeBlock(256, 1);
  Bytes format2 = makeBlock(1024, 2);
  Bytes format5 = makeBlock(256, 5);
  Bytes format101 = makeBlock(344, 101);
  Bytes start = makeBlock(256, 1, 0x40);
  Bytes report = makeBlock(256, 1, 0x40);
  Bytes instance = makeBlock(256, 1, 0x40);
  const Bytes metric = makeBlock(4096, 3);
  MixedOutcome outcome = {};
  outcome.results = {arm_init("caf\xE9", "user", -2, nullptr, 0),
                     w_ArmInit(0, "caf\xE9", nullptr, 0x11, nullptr, 0),
                     arm_getid(5, tranName().c_str(), "detail", 1, format101.data(), 344),
                     w_ArmGetID(0, 5, "\xFF", nullptr, 1, nullptr, 0),
                     arm_start(6, 1, start.data(), 256),
                     arm_update(0x7FFFFFFE, 0x12345678, format1.data(), 256),
                     arm_update(0x7FFFFFFE, 0x12345678, format2.data(), 1024),
                     arm_transactionReport(7, 1, report.data(), 256, 1, 8, 9, -10),
                     arm_transactionInstanceReport(7, 1, instance.data(), 256, 0, 8, 9, -10),
                     arm_completeTransaction(11, 12, -13),
                     arm_completeTransactionInstance(11, 12, -13),
                     arm_associateMetricData(14, metric.data(), 4096),
                     arm_stop(0, -1, 0x22, format5.data(), 256)};
  std::copy(start.begin(), start.end(), outcome.start_block.begin());
  std::copy(report.begin(), report.end(), outcome.report_block.begin());
  return outcome;
}

Correlator mixedCorrelator() {
  return makeCorrelator(0x55);
}

int32_t mixedResult(int32_t type) {
  return type % 2 == 0 ? -1000 - type : 0x70000000 + type;
}

void prepareMixedEngine(ScriptedEngine& engine) {
  for (const int32_t type : TYPES) {
    engine.replyWithCorrelator(type, mixedResult(type), 1, mixedCorrelator());
  }
}

void expectMixedOutcome(const MixedOutcome& outcome) {
  Bytes block = makeBlock(256, 1, 0x60);
  const Correlator correlator = mixedCorrelator();
  putBytes(block, 88, Bytes(correlator.begin(), correlator.end()));
  expectSameBytes(block, Bytes(outcome.start_block.begin(), outcome.start_block.end()));
  expectSameBytes(block, Bytes(outcome.report_block.begin(), outcome.report_block.end()));
  for (size_t i = 0; i < MIXED_CALLS; ++i) {
    EXPECT_EQ(mixedResult(TYPES[i]), outcome.results[i]) << "call " << i;
  }
}

void expectMixedRecords(const ScriptedEngine& engine, uint32_t first, uint32_t process) {
  std::vector<Bytes> expected = expectedRecords();
  ASSERT_EQ(MIXED_CALLS, expected.size());
  for (uint32_t i = 0; i < MIXED_CALLS; ++i) {
    const Bytes record = engine.record(first + i);
    SCOPED_TRACE("record " + std::to_string(i));
    EXPECT_EQ(process, word(record, 0));
    // The thread word is the width's own business.
    putBytes(expected[i], 0, slice(record, 0, 8));
    // The report on an instance asks for no time.
    const size_t time = TYPES[i] == 17 ? 0 : timeOffset(TYPES[i]);
    if (time != 0) expectTimeOfNow(expected[i], record, time);
    expectSameBytes(expected[i], record);
  }
}

}  // namespace armtest
