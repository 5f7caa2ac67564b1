// What the hot path allocates, with rings behind it, once it has warmed up.

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "armext.h"
#include "dispatch/Dispatcher.h"
#include "events/EventFile.h"
#include "events/EventPublisher.h"
#include "events/EventWorker.h"
#include "otlp/SpanCollector.h"

namespace {

/// Of the calling thread alone: the outputs' threads may allocate.
thread_local uint64_t allocations = 0;
thread_local int64_t live_bytes = 0;

}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  void* memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  live_bytes += static_cast<int64_t>(malloc_usable_size(memory));
  return memory;
}

void operator delete(void* memory) noexcept {
  live_bytes -= static_cast<int64_t>(malloc_usable_size(memory));
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

using armengine::Dispatcher;
using armengine::EventFile;
using armengine::EventPublisher;
using armengine::EventWorker;
using armengine::ProcessWatch;
using armengine::Registry;
using armengine::RegistrySettings;
using armengine::SpanCollector;

TArmMessage requestOf(int32_t type) {
  TArmMessage request = {};
  request.sender_id = {getpid(), 1};
  request.msg_type = type;
  return request;
}

/// A parent with some children, updates and metrics, a report, a completion and refused calls.
void makeRound(Dispatcher* dispatcher, int32_t id, uint32_t round) {
  TArmMessage start = requestOf(ARM_MSG_START);
  start.messages.start.tran_id = id;
  start.messages.start.data_size = 256;
  start.messages.start.time = {round, 0};
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrReq_f;
  block.flags[1] = ARM_AllMetrics_f;
  std::memcpy(start.messages.start.data, &block, sizeof block);
  const TArmReplyMessage top = dispatcher->answer(start);
  block.flags[0] = ARM_CorrReq_f | ARM_CorrPar_f;
  std::memcpy(&block.correlator, top.correlator, sizeof top.correlator);
  std::memcpy(start.messages.start.data, &block, sizeof block);
  TArmMessage update = requestOf(ARM_MSG_UPDATE);
  TArmMessage stop = requestOf(ARM_MSG_STOP);
  std::memcpy(stop.messages.stop.data, &block, sizeof block);
  stop.messages.stop.data_size = 256;
  stop.messages.stop.time = {round, 1000000};
  for (int i = 0; i < 10; ++i) {
    const int32_t handle = dispatcher->answer(start).result;
    update.messages.update.start_handle = handle;
    update.messages.update.data_size = 1024;
    (void)dispatcher->answer(update);
    stop.messages.stop.start_handle = handle;
    (void)dispatcher->answer(stop);
    (void)dispatcher->answer(stop);
  }
  TArmMessage report = requestOf(ARM_MSG_TRANS_REPORT);
  report.messages.report.tran_handle = id;
  report.messages.report.report_value2 = 1;
  (void)dispatcher->answer(report);
  TArmMessage complete = requestOf(ARM_MSG_COMPLETE_TRANS);
  complete.messages.complete.tran_handle = top.result;
  complete.messages.complete.time = {round, 2000000};
  EXPECT_EQ(0, dispatcher->answer(complete).result);
}

int32_t registerClass(Dispatcher* dispatcher) {
  TArmMessage init = requestOf(ARM_MSG_INIT);
  std::strcpy(init.messages.init.appl_name, "shop");
  TArmMessage getid = requestOf(ARM_MSG_GETID);
  getid.messages.getid.appl_id = dispatcher->answer(init).result;
  std::strcpy(getid.messages.getid.tran_name, "order");
  arm_user_data101_t described = {};
  described.format = ARM_DATA_FORMAT_101;
  described.flags[1] = ARM_Metric1_f | ARM_Metric2_f;
  described.metric[0].type = ARM_Counter32;
  described.metric[1].type = ARM_Gauge32;
  std::memcpy(getid.messages.getid.data, &described, sizeof described);
  getid.messages.getid.data_size = sizeof described;
  const int32_t id = dispatcher->answer(getid).result;
  EXPECT_EQ(id, dispatcher->answer(getid).result);
  return id;
}

TEST(Memory, HotPathAllocatesNothingInTheSteadyState) {
  std::string why;
  const auto file = EventFile::open("/tmp/events", 1, &why);
  ASSERT_NE(nullptr, file) << why;
  SpanCollector spans;
  EventWorker to_file(*file, 4096, 1U << 20);
  EventWorker to_spans(spans, 4096, 1U << 20);
  EventPublisher publisher;
  publisher.add(to_file.ring());
  publisher.add(to_spans.ring());
  ProcessWatch watch;
  Registry registry(1);
  Dispatcher dispatcher(registry, &publisher, &watch);
  const int32_t id = registerClass(&dispatcher);
  for (uint32_t round = 1; round < 200; ++round) makeRound(&dispatcher, id, round);
  const uint64_t before = allocations;
  for (uint32_t round = 200; round < 3000; ++round) makeRound(&dispatcher, id, round);
  EXPECT_EQ(before, allocations);
  EXPECT_EQ(0U, registry.openInstances());
  EXPECT_EQ(1U, registry.statistics().size());
}

TEST(Memory, CountingSeesAnAllocation) {
  const uint64_t before = allocations;
  const auto one = std::make_unique<int>(1);
  EXPECT_EQ(before + 1, allocations);
}

TEST(Memory, OpenInstanceTakesAFewHundredBytes) {
  RegistrySettings settings;
  settings.most_open = 1000000;
  Registry registry(1, settings);
  const int32_t id = registry.addClass(registry.addApplication("shop").result, "order", "").result;
  const int64_t before = live_bytes;
  constexpr int64_t COUNT = 200000;
  for (int64_t i = 0; i < COUNT; ++i) ASSERT_GT(registry.start(id, {}, 1).result, 0);
  const int64_t each = (live_bytes - before) / COUNT;
  RecordProperty("bytes", static_cast<int>(each));
  EXPECT_LT(each, 400);
}

TEST(Memory, ClassTakesAFewKilobytesAndOneForEachPowerOfTwoOfItsTimes) {
  Registry registry(1);
  const int32_t application = registry.addApplication("shop").result;
  const int64_t before = live_bytes;
  constexpr int64_t COUNT = 1000;
  for (int64_t i = 0; i < COUNT; ++i) {
    const int32_t id = registry.addClass(application, "order" + std::to_string(i), "").result;
    for (uint64_t duration = 1000; duration < 1000000; duration *= 2) {
      ASSERT_EQ(0, registry.stop(registry.start(id, {}, 0).result, 0, duration).result);
    }
  }
  const int64_t each = (live_bytes - before) / COUNT;
  RecordProperty("bytes", static_cast<int>(each));
  EXPECT_LT(each, 16000);
}

}  // namespace
