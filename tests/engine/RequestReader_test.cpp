#include "core/RequestReader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "core/EngineQueues.h"
#include "ipcobjects.h"
#include "process.h"
#include "queueaccess.h"
#include "queueclients.h"
#include "sleepers.h"

namespace {

using armengine::EngineQueues;
using armengine::RequestReader;
using armengine::Taken;
using armtest::controlPath;
using armtest::forkChild;
using armtest::putRequest;
using armtest::waitUntil;
using std::chrono::milliseconds;

constexpr milliseconds LONG{3600000};

// Offsets in the request queue's segment.
constexpr size_t COUNT = 0;
constexpr size_t HEAD = 2;
constexpr size_t TAIL = 4;
constexpr size_t EMPTY_WAITERS = 16;
constexpr size_t SLOTS = 28;

class RequestReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    armengine::EngineOptions options;
    options.requests = 3;
    options.requesters = 4;
    std::string why;
    queues_ = EngineQueues::create(options, &why);
    ASSERT_NE(nullptr, queues_) << why;
  }
  RequestReader& reader() { return queues_->requests(); }
  Taken takeWithin(TArmMessage& message, milliseconds limit) {
    size_t count = 0;
    return reader().take(&message, 1, &count, limit);
  }
  int32_t takeType() {
    TArmMessage message = {};
    return armtest::takeRequestIfAny(reader(), message) ? message.msg_type : 0;
  }

  std::unique_ptr<EngineQueues> queues_;
};

TEST_F(RequestReaderTest, RequestsAreTakenInTheirOrderAcrossTheEndOfTheRing) {
  for (int32_t type = 1; type <= 20; type += 2) {
    ASSERT_EQ(0, putRequest(type, false));
    ASSERT_EQ(0, putRequest(type + 1, false));
    EXPECT_EQ(2U, reader().depth());
    EXPECT_EQ(type, takeType());
    EXPECT_EQ(type + 1, takeType());
  }
  EXPECT_EQ(0, takeType());
  EXPECT_EQ(0UL, reader().repairs());
}

TEST_F(RequestReaderTest, RequestIsTakenWhole) {
  TArmMessage sent;
  std::memset(&sent, 0x5A, sizeof sent);
  CIPCSimpleQueue<TArmMessage> client("/var/kelp/controls_ae.kelp");
  ASSERT_EQ(0, client.Put(sent));
  TArmMessage taken = {};
  ASSERT_TRUE(armtest::takeRequest(reader(), taken));
  EXPECT_EQ(0, std::memcmp(&sent, &taken, sizeof sent));
}

TEST_F(RequestReaderTest, WaitEndsWithARequest) {
  const pid_t client = forkChild([] {
    const armtest::Attached memory(controlPath("ae.kelp_mem"));
    const bool waits = waitUntil([&] { return memory.read<uint32_t>(EMPTY_WAITERS) == 1; });
    return waits && putRequest(9, false) == 0 ? 0 : 1;
  });
  TArmMessage message = {};
  EXPECT_EQ(Taken::request, takeWithin(message, LONG));
  EXPECT_EQ(9, message.msg_type);
  EXPECT_EQ(0, armtest::exitCodeOf(client));
}

TEST_F(RequestReaderTest, WaitEndsWithItsTime) {
  TArmMessage message = {};
  EXPECT_EQ(Taken::nothing, takeWithin(message, milliseconds(1)));
}

TEST_F(RequestReaderTest, InterruptionEndsTheNextWait) {
  TArmMessage message = {};
  reader().interrupt();
  EXPECT_EQ(Taken::interrupted, takeWithin(message, LONG));
  reader().interrupt();
  EXPECT_FALSE(armtest::takeRequest(reader(), message));
}

TEST_F(RequestReaderTest, InterruptionEndsTheCurrentWait) {
  const armtest::Attached memory(controlPath("ae.kelp_mem"));
  std::thread interrupter([&] {
    if (!waitUntil([&] { return memory.read<uint32_t>(EMPTY_WAITERS) == 1; })) return;
    reader().interrupt();
  });
  TArmMessage message = {};
  EXPECT_EQ(Taken::interrupted, takeWithin(message, LONG));
  interrupter.join();
  EXPECT_EQ(0U, memory.read<uint32_t>(EMPTY_WAITERS));
}

TEST_F(RequestReaderTest, StopEndsTheCurrentWait) {
  const pid_t stopper = forkChild([] {
    const armtest::Attached memory(controlPath("ae.kelp_mem"));
    CIPCSimpleQueue<TArmMessage> client("/var/kelp/controls_ae.kelp");
    const bool waits = waitUntil([&] { return memory.read<uint32_t>(EMPTY_WAITERS) == 1; });
    return waits && client.SetState(1) == 0 ? 0 : 1;
  });
  TArmMessage message = {};
  EXPECT_EQ(Taken::stopped, takeWithin(message, LONG));
  EXPECT_EQ(0, armtest::exitCodeOf(stopper));
}

TEST_F(RequestReaderTest, StaleWakeUpsDoNotEndAWait) {
  for (int32_t type = 1; type <= 5; ++type) {
    ASSERT_EQ(0, putRequest(type, false));
    EXPECT_EQ(type, takeType());
  }
  EXPECT_EQ(5, armtest::semaphoreValue(armtest::setAt(controlPath("ae.kelp_emp"), 1), 0));
  TArmMessage message = {};
  EXPECT_EQ(Taken::nothing, takeWithin(message, milliseconds(1)));
}

TEST_F(RequestReaderTest, RequestOfAWriterThatWasKilledBeforeItsWakeUpIsTaken) {
  const pid_t writer = forkChild([] {
    armtest::Attached memory(controlPath("ae.kelp_mem"));
    if (!waitUntil([&] { return memory.read<uint32_t>(EMPTY_WAITERS) == 1; })) return 1;
    memory.write<int32_t>(SLOTS + 8, 5);
    memory.write<uint16_t>(TAIL, 1);
    memory.write<uint16_t>(COUNT, 1);
    return 0;
  });
  TArmMessage message = {};
  EXPECT_TRUE(armtest::takeRequest(reader(), message));
  EXPECT_EQ(5, message.msg_type);
  EXPECT_EQ(0, armtest::exitCodeOf(writer));
}

TEST_F(RequestReaderTest, TailOfAWriterThatWasKilledBeforeItCountedIsPutBack) {
  ASSERT_EQ(0, putRequest(1, false));
  armtest::Attached(controlPath("ae.kelp_mem")).write<uint16_t>(TAIL, 2);
  EXPECT_EQ(1, takeType());
  EXPECT_EQ(1UL, reader().repairs());
  ASSERT_EQ(0, putRequest(2, false));
  EXPECT_EQ(2, takeType());
}

TEST_F(RequestReaderTest, ImpossibleRingIsEmptiedAndGoesOn) {
  for (const size_t field : {COUNT, HEAD, TAIL}) {
    ASSERT_EQ(0, putRequest(1, false));
    armtest::Attached(controlPath("ae.kelp_mem")).write<uint16_t>(field, 0xFFFF);
    (void)takeType();
    EXPECT_EQ(0U, reader().depth()) << field;
    ASSERT_EQ(0, putRequest(2, false)) << field;
    EXPECT_EQ(2, takeType()) << field;
  }
  EXPECT_EQ(3UL, reader().repairs());
}

TEST_F(RequestReaderTest, WriterThatWaitsForRoomIsWoken) {
  for (int32_t type = 1; type <= 3; ++type) ASSERT_EQ(0, putRequest(type, false));
  const pid_t writer = forkChild([] { return putRequest(4, true) == 0 ? 0 : 1; });
  const int set = armtest::setAt(controlPath("ae.kelp_ovr"), 1);
  EXPECT_TRUE(armtest::sleeperComes(set, 0));
  EXPECT_EQ(1, takeType());
  EXPECT_EQ(0, armtest::exitCodeOf(writer));
  EXPECT_EQ(3U, reader().depth());
}

// ---- several at once ----------------------------------------------------------------------------

constexpr size_t ROOM = 16;

/// Types of the requests that are taken together.
std::vector<int32_t> takeTypes(RequestReader& reader, size_t room) {
  std::vector<TArmMessage> messages(ROOM);
  size_t count = 99;
  const Taken taken = reader.take(messages.data(), room, &count, milliseconds(1));
  EXPECT_EQ(count > 0 ? Taken::request : Taken::nothing, taken);
  std::vector<int32_t> types;
  for (size_t i = 0; i < count; ++i) types.push_back(messages[i].msg_type);
  return types;
}

TEST_F(RequestReaderTest, BatchSmallerThanTheRingLeavesTheRest) {
  for (int32_t type = 1; type <= 3; ++type) ASSERT_EQ(0, putRequest(type, false));
  EXPECT_EQ((std::vector<int32_t>{1, 2}), takeTypes(reader(), 2));
  EXPECT_EQ(1U, reader().depth());
  EXPECT_EQ(std::vector<int32_t>{3}, takeTypes(reader(), 2));
  EXPECT_EQ(std::vector<int32_t>{}, takeTypes(reader(), 2));
}

TEST_F(RequestReaderTest, BatchLargerThanTheRingTakesAllThatThereIsAcrossItsEnd) {
  for (int32_t type = 1; type <= 2; ++type) ASSERT_EQ(0, putRequest(type, false));
  EXPECT_EQ((std::vector<int32_t>{1, 2}), takeTypes(reader(), ROOM));
  for (int32_t type = 3; type <= 5; ++type) ASSERT_EQ(0, putRequest(type, false));
  EXPECT_EQ((std::vector<int32_t>{3, 4, 5}), takeTypes(reader(), ROOM));
  EXPECT_EQ(0U, reader().depth());
  EXPECT_EQ(0UL, reader().repairs());
}

TEST_F(RequestReaderTest, BatchMakesRoomForEveryWriterThatWaits) {
  for (int32_t type = 1; type <= 3; ++type) ASSERT_EQ(0, putRequest(type, false));
  const pid_t writers[2] = {forkChild([] { return putRequest(4, true) == 0 ? 0 : 1; }),
                            forkChild([] { return putRequest(4, true) == 0 ? 0 : 1; })};
  const int set = armtest::setAt(controlPath("ae.kelp_ovr"), 1);
  EXPECT_TRUE(armtest::sleeperComes(set, 0, 2));
  EXPECT_EQ((std::vector<int32_t>{1, 2, 3}), takeTypes(reader(), ROOM));
  for (const pid_t writer : writers) EXPECT_EQ(0, armtest::exitCodeOf(writer));
  EXPECT_EQ((std::vector<int32_t>{4, 4}), takeTypes(reader(), ROOM));
}

TEST_F(RequestReaderTest, NothingIsTakenFromAQueueThatIsStoppedOrInterrupted) {
  ASSERT_EQ(0, putRequest(1, false));
  std::vector<TArmMessage> messages(ROOM);
  size_t count = 99;
  reader().interrupt();
  EXPECT_EQ(Taken::interrupted, reader().take(messages.data(), ROOM, &count, LONG));
  EXPECT_EQ(0U, count);
  reader().setState(1);
  EXPECT_EQ(Taken::stopped, reader().take(messages.data(), ROOM, &count, LONG));
  EXPECT_EQ(0U, count);
  EXPECT_EQ(1U, reader().depth());
}

}  // namespace
