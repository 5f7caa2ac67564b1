#include "dispatch/Dispatcher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "armext.h"
#include "process.h"

namespace {

using armengine::Dispatcher;
using armengine::Registry;

TArmMessage message(int32_t type) {
  TArmMessage request = {};
  request.sender_id = {123, 456};
  request.msg_type = type;
  return request;
}

void setBlock(uint8_t* data, int32_t* size, uint8_t flags, const uint8_t* parent = nullptr) {
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = flags;
  if (parent != nullptr) std::memcpy(block.correlator.bytes, parent, sizeof block.correlator);
  std::memcpy(data, &block, sizeof block);
  *size = sizeof block;
}

class DispatcherTest : public testing::Test {
 protected:
  int32_t init(const char* name) {
    TArmMessage request = message(ARM_MSG_INIT);
    std::strncpy(request.messages.init.appl_name, name, ARM_APPL_NAME_FIELD - 1);
    return dispatcher_.answer(request).result;
  }
  TArmMessage getidRequest(const char* name, const char* detail, int32_t size = 0) {
    TArmMessage request = message(ARM_MSG_GETID);
    TArmGetidBody& body = request.messages.getid;
    body.appl_id = application_;
    std::strncpy(body.tran_name, name, ARM_TRAN_NAME_FIELD - 1);
    std::strncpy(body.tran_detail, detail, ARM_TRAN_DETAIL_FIELD - 1);
    body.data[0] = ARM_DATA_FORMAT_101;
    body.data_size = size;
    return request;
  }
  int32_t getid(const char* name, const char* detail = "", int32_t size = 0) {
    return dispatcher_.answer(getidRequest(name, detail, size)).result;
  }
  TArmReplyMessage start(int32_t id, uint8_t flags, const uint8_t* parent = nullptr,
                         TArmTimeStamp time = {10, 0}) {
    TArmMessage request = message(ARM_MSG_START);
    request.messages.start.tran_id = id;
    request.messages.start.time = time;
    if (flags != 0) {
      setBlock(request.messages.start.data, &request.messages.start.data_size, flags, parent);
    }
    return dispatcher_.answer(request);
  }
  int32_t stop(int32_t handle, int32_t status, TArmTimeStamp time = {11, 0}) {
    TArmMessage request = message(ARM_MSG_STOP);
    request.messages.stop.start_handle = handle;
    request.messages.stop.comp_status = status;
    request.messages.stop.time = time;
    return dispatcher_.answer(request).result;
  }
  int32_t update(int32_t handle) {
    TArmMessage request = message(ARM_MSG_UPDATE);
    request.messages.update.start_handle = handle;
    return dispatcher_.answer(request).result;
  }
  TArmReplyMessage report(int32_t type, int32_t handle, int32_t value1, int32_t value2,
                          uint8_t flags = 0) {
    TArmMessage request = message(type);
    request.messages.report.tran_handle = handle;
    request.messages.report.report_value1 = value1;
    request.messages.report.report_value2 = value2;
    if (flags != 0) {
      setBlock(request.messages.report.data, &request.messages.report.data_size, flags);
    }
    return dispatcher_.answer(request);
  }
  int32_t complete(int32_t type, int32_t handle, int32_t status) {
    TArmMessage request = message(type);
    request.messages.complete.tran_handle = handle;
    request.messages.complete.complete_value1 = status;
    request.messages.complete.time = {12, 0};
    return dispatcher_.answer(request).result;
  }
  int32_t metricData(int32_t handle, int32_t length) {
    TArmMessage request = message(ARM_MSG_ASSOCIATE_METRIC_DATA);
    request.messages.metric_data.tran_handle = handle;
    request.messages.metric_data.length = length;
    return dispatcher_.answer(request).result;
  }
  const armengine::ClassStatistics& statistics() {
    return *registry_.statistics().at(0);  // kept by the registry
  }

  Registry registry_{77};
  Dispatcher dispatcher_{registry_};
  int32_t application_ = init("shop");
  int32_t orders_ = getid("order");
};

TEST_F(DispatcherTest, NamesComeFromTheRecords) {
  EXPECT_EQ("shop", statistics().application);
  EXPECT_EQ("order", statistics().name);
}

TEST_F(DispatcherTest, NameWithoutATerminatingZeroEndsWithItsField) {
  TArmMessage request = message(ARM_MSG_INIT);
  std::memset(&request.messages, 'x', sizeof request.messages);
  application_ = dispatcher_.answer(request).result;
  (void)getid("z");
  EXPECT_EQ(std::string(ARM_APPL_NAME_FIELD, 'x'), registry_.statistics().at(1)->application);
}

TEST_F(DispatcherTest, DetailIsNotCompared) {
  EXPECT_EQ(orders_, getid("order", "another detail"));
}

TEST_F(DispatcherTest, BlockAndItsSizeAreCompared) {
  const int32_t with_block = getid("order", "", 344);
  EXPECT_NE(orders_, with_block);
  EXPECT_EQ(with_block, getid("order", "", 344));
  EXPECT_NE(with_block, getid("order", "", 300));
  TArmMessage other = getidRequest("order", "", 344);
  other.messages.getid.data[343] = 1;
  EXPECT_NE(with_block, dispatcher_.answer(other).result);
}

TEST_F(DispatcherTest, BytesOfAnAbsentBlockAreNotCompared) {
  TArmMessage other = getidRequest("order", "", 0);
  other.messages.getid.data[343] = 1;
  EXPECT_EQ(orders_, dispatcher_.answer(other).result);
}

TEST_F(DispatcherTest, EveryStartThatAsksGetsACorrelator) {
  const TArmReplyMessage reply = start(orders_, ARM_CorrReq_f);
  EXPECT_GT(reply.result, 0);
  EXPECT_NE(0, reply.correlator_flag);
  EXPECT_EQ(168, reply.correlator[0] * 256 + reply.correlator[1]);
  EXPECT_EQ(0, reply.correlator[109]);
}

TEST_F(DispatcherTest, StartThatDoesNotAskGetsNoCorrelator) {
  for (const uint8_t flags : std::initializer_list<uint8_t>{0x00, 0x80, 0x20, 0x10}) {
    const TArmReplyMessage reply = start(orders_, flags);
    EXPECT_GT(reply.result, 0);
    EXPECT_EQ(0, reply.correlator_flag);
    EXPECT_EQ(0, reply.correlator[0] + reply.correlator[1] + reply.correlator[2]);
  }
}

TEST_F(DispatcherTest, RefusedStartGetsNoCorrelator) {
  const TArmReplyMessage reply = start(orders_ + 1000, ARM_CorrReq_f);
  EXPECT_LT(reply.result, 0);
  EXPECT_EQ(0, reply.correlator_flag);
}

TEST_F(DispatcherTest, BlockBytesWithoutASizeAreNotRead) {
  TArmMessage request = message(ARM_MSG_START);
  request.messages.start.tran_id = orders_;
  setBlock(request.messages.start.data, &request.messages.start.data_size, ARM_CorrReq_f);
  request.messages.start.data_size = 0;
  EXPECT_EQ(0, dispatcher_.answer(request).correlator_flag);
}

TEST_F(DispatcherTest, TraceRequestIsInTheCorrelator) {
  EXPECT_EQ(0xC0, start(orders_, ARM_CorrReq_f | ARM_TraceReq_f).correlator[3]);
  EXPECT_EQ(0x80, start(orders_, ARM_CorrReq_f).correlator[3]);
}

TEST_F(DispatcherTest, ParentIsReadOnlyWhenItsFlagIsSet) {
  const auto trace_of = [](const TArmReplyMessage& reply) {
    armengine::CorrelatorBytes bytes;
    std::memcpy(bytes.data(), reply.correlator, bytes.size());
    return armengine::decodeCorrelator(bytes)->trace_id;
  };
  const TArmReplyMessage parent = start(orders_, ARM_CorrReq_f);
  EXPECT_NE(trace_of(parent), trace_of(start(orders_, ARM_CorrReq_f, parent.correlator)));
  EXPECT_EQ(trace_of(parent),
            trace_of(start(orders_, ARM_CorrReq_f | ARM_CorrPar_f, parent.correlator)));
}

TEST_F(DispatcherTest, DurationComesFromTheStamps) {
  const int32_t handle = start(orders_, 0, nullptr, {10, 999999000}).result;
  EXPECT_EQ(0, stop(handle, ARM_GOOD, {4000000000U, 1000}));
  EXPECT_EQ(3999999990ULL * 1000000000 - 999998000, statistics().times.maximum());
}

TEST_F(DispatcherTest, StampsOfAClockThatSteppedBackGiveZero) {
  EXPECT_EQ(0, stop(start(orders_, 0, nullptr, {10, 5000}).result, ARM_GOOD, {10, 4000}));
  EXPECT_EQ(0U, statistics().times.maximum());
}

TEST_F(DispatcherTest, UpdateAndStopNeedAKnownHandle) {
  const int32_t handle = start(orders_, 0).result;
  EXPECT_EQ(0, update(handle));
  EXPECT_EQ(0, stop(handle, ARM_ABORT));
  EXPECT_EQ(1U, statistics().aborted.get());
  EXPECT_LT(update(handle), 0);
  EXPECT_LT(stop(handle, ARM_GOOD), 0);
  EXPECT_LT(stop(0, ARM_GOOD), 0);
}

TEST_F(DispatcherTest, EndNeedsAKnownApplication) {
  TArmMessage request = message(ARM_MSG_END);
  request.messages.end.appl_id = application_;
  EXPECT_EQ(0, dispatcher_.answer(request).result);
  EXPECT_LT(dispatcher_.answer(request).result, 0);
  EXPECT_LT(getid("order"), 0);
}

TEST_F(DispatcherTest, UnknownMessageTypesAreRefused) {
  for (const int32_t type : {-1, 0, 7, 8, 9, 10, 11, 12, 13, 14, 20, 2147483647}) {
    EXPECT_LT(dispatcher_.answer(message(type)).result, 0) << type;
  }
}

TEST_F(DispatcherTest, ReportOfAClassCountsAnInstance) {
  for (const int32_t type : {ARM_MSG_TRANS_REPORT, ARM_MSG_TRANS_INSTANCE_REPORT}) {
    EXPECT_EQ(0, report(type, orders_, ARM_FAILED, 250).result);
  }
  EXPECT_EQ(2U, statistics().failed.get());
  EXPECT_EQ(250000000U, statistics().times.maximum());
}

TEST_F(DispatcherTest, ReportThatAsksGetsACorrelator) {
  EXPECT_NE(0, report(ARM_MSG_TRANS_REPORT, orders_, 0, 1, ARM_CorrReq_f).correlator_flag);
  EXPECT_EQ(0, report(ARM_MSG_TRANS_REPORT, orders_, 0, 1).correlator_flag);
  EXPECT_EQ(0, report(ARM_MSG_TRANS_REPORT, 9999, 0, 1, ARM_CorrReq_f).correlator_flag);
}

TEST_F(DispatcherTest, ReportOfAnOpenInstanceLeavesItOpen) {
  const int32_t handle = start(orders_, 0).result;
  EXPECT_EQ(0, report(ARM_MSG_TRANS_INSTANCE_REPORT, handle, 0, 1).result);
  EXPECT_TRUE(registry_.isOpen(handle));
  EXPECT_EQ(0U, statistics().count());
}

TEST_F(DispatcherTest, ReportOfAnUnknownNumberIsRefused) {
  EXPECT_LT(report(ARM_MSG_TRANS_REPORT, 9999, 0, 1).result, 0);
  EXPECT_LT(report(ARM_MSG_TRANS_INSTANCE_REPORT, 0, 0, 1).result, 0);
  EXPECT_LT(report(ARM_MSG_TRANS_REPORT, application_, 0, 1).result, 0);
}

TEST_F(DispatcherTest, NegativeReportedTimeIsZero) {
  EXPECT_EQ(0, report(ARM_MSG_TRANS_REPORT, orders_, 0, -5).result);
  EXPECT_EQ(0U, statistics().times.maximum());
}

TEST_F(DispatcherTest, CompletionStopsAnOpenInstance) {
  for (const int32_t type : {ARM_MSG_COMPLETE_TRANS, ARM_MSG_COMPLETE_TRANS_INSTANCE}) {
    const int32_t handle = start(orders_, 0).result;
    EXPECT_EQ(0, complete(type, handle, ARM_FAILED));
    EXPECT_FALSE(registry_.isOpen(handle));
    EXPECT_LT(complete(type, handle, ARM_FAILED), 0);
  }
  EXPECT_EQ(2U, statistics().failed.get());
  EXPECT_EQ(2000000000U, statistics().times.maximum());
}

TEST_F(DispatcherTest, CompletionOfAClassChangesNothing) {
  const int32_t handle = start(orders_, 0).result;
  EXPECT_EQ(0, complete(ARM_MSG_COMPLETE_TRANS, orders_, 0));
  EXPECT_TRUE(registry_.isOpen(handle));
  EXPECT_EQ(0U, statistics().count());
}

TEST_F(DispatcherTest, MetricDataNeedsAKnownNumberAndAGoodLength) {
  const int32_t handle = start(orders_, 0).result;
  EXPECT_EQ(0, metricData(handle, 1));
  EXPECT_EQ(0, metricData(orders_, 4096));
  for (const int32_t length : {0, -1, 4097}) EXPECT_LT(metricData(handle, length), 0) << length;
  for (const int32_t id : {0, 9999}) EXPECT_LT(metricData(id, 1), 0) << id;
  EXPECT_LT(metricData(application_, 1), 0);
}

TEST(DispatcherWatch, InstanceStartedAfterItsNumberHadDepartedIsEndedAtALaterCheck) {
  armengine::ProcessWatch watch(std::chrono::milliseconds(5));
  Registry registry(1);
  Dispatcher dispatcher(registry, nullptr, &watch);
  const pid_t child = armtest::forkChild([] {
    for (;;) pause();
    return 0;
  });
  const int32_t application = registry.addApplication("shop").result;
  const int32_t id = registry.addClass(application, "order", "").result;
  // Its number was another process's when the first request came from it.
  watch.observe(child, 1);
  armengine::StartData early;
  early.process = child;
  early.seen = 1;
  EXPECT_GT(registry.start(id, early, 0).result, 0);
  TArmMessage start = message(ARM_MSG_START);
  start.sender_id.processId = child;
  start.messages.start.tran_id = id;
  const int32_t late = dispatcher.answer(start).result;
  const auto open_after_tidying = [&] {
    dispatcher.tidy();
    return registry.openInstances();
  };
  EXPECT_TRUE(armtest::waitUntil([&] { return open_after_tidying() == 1; }));
  EXPECT_TRUE(registry.isOpen(late));
  kill(child, SIGKILL);
  armtest::exitCodeOf(child);
  EXPECT_TRUE(armtest::waitUntil([&] { return open_after_tidying() == 0; }));
}

}  // namespace
