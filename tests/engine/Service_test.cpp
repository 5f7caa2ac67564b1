#include "program/Service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ipcobjects.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"
#include "queueclients.h"
#include "sleepers.h"

namespace {

using armengine::EngineQueues;
using armtest::controlPath;
using armtest::forkChild;
using armtest::waitUntil;

/// One byte from process to process, to say when.
class Gate {
 public:
  Gate() { EXPECT_EQ(0, pipe(ends_)); }
  ~Gate() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;
  bool open() const { return write(ends_[1], "", 1) == 1; }
  bool pass() const {
    char byte;
    return read(ends_[0], &byte, 1) == 1;
  }

 private:
  int ends_[2];
};

class ServiceTest : public testing::Test {
 protected:
  void create(uint16_t requesters, uint16_t requests = 8) {
    armengine::EngineOptions options;
    options.requests = requests;
    options.requesters = requesters;
    std::string why;
    queues_ = EngineQueues::create(options, &why);
    ASSERT_NE(nullptr, queues_) << why;
  }

  std::unique_ptr<EngineQueues> queues_;
  armengine::Registry registry_{1};
  armengine::Dispatcher dispatcher_{registry_};
};

TEST_F(ServiceTest, AnswersUntilTheQueueIsStopped) {
  create(4);
  const pid_t client = forkChild([] {
    TArmReplyMessage reply = {};
    if (armtest::putRequest(ARM_MSG_INIT, false) != 0 || armtest::getReply(&reply) != 0) return 1;
    if (reply.result <= 0) return 2;
    CIPCSimpleQueue<TArmMessage> queue("/var/kelp/controls_ae.kelp");
    return queue.SetState(1) == 0 ? 0 : 3;
  });
  armengine::Service service(*queues_, dispatcher_);
  EXPECT_FALSE(service.run());
  EXPECT_EQ(1U, service.served());
  EXPECT_EQ(0, armtest::exitCodeOf(client));
}

/// Puts requests whose answers differ, takes the replies, and counts those that are not its own.
int exchangeInTurns(int times) {
  CIPCSimpleQueue<TArmMessage> requests("/var/kelp/controls_ae.kelp");
  CIPCQueue<TArmReplyMessage> replies("/var/kelp/controls_ea.kelp", false);
  constexpr int32_t UNKNOWN_TYPE = 99;
  int wrong = 0;
  for (int i = 0; i < times; ++i) {
    const bool unknown = i % 2 == 0;
    while (requests.Put(armtest::request(unknown ? UNKNOWN_TYPE : ARM_MSG_END)) == -274) {
      (void)sched_yield();
    }
    TArmReplyMessage reply = {};
    if (replies.Get(GetIpcIdentifier(), reply) != 0) ++wrong;
    const int32_t expected =
        unknown ? armengine::STATUS_UNKNOWN_MESSAGE : armengine::STATUS_UNKNOWN_APPLICATION;
    if (reply.result != expected) ++wrong;
  }
  return wrong;
}

// More callers than a batch, with a ring that holds fewer than a batch and one that holds more.
TEST_F(ServiceTest, EveryCallOfManyCallersGetsItsOwnAnswer) {
  for (const uint16_t requests : {uint16_t{5}, uint16_t{64}}) {
    create(64, requests);
    constexpr int PROCESSES = 6;
    constexpr int THREADS = 4;
    constexpr int CALLS = 200;
    pid_t clients[PROCESSES];
    for (pid_t& client : clients) {
      client = forkChild([] {
        // What the library's statics do when it is loaded, before any thread.
        (void)CkesThreadLibrary::Initialize();
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
          threads.emplace_back([&wrong] { wrong += exchangeInTurns(CALLS); });
        }
        for (std::thread& thread : threads) thread.join();
        return wrong == 0 ? 0 : 1;
      });
    }
    armengine::Service service(*queues_, dispatcher_);
    std::thread thread([&service] { EXPECT_TRUE(service.run()); });
    for (const pid_t client : clients) EXPECT_EQ(0, armtest::exitCodeOf(client));
    queues_->requests().interrupt();
    thread.join();
    EXPECT_EQ(uint64_t{PROCESSES * THREADS * CALLS}, service.served());
    queues_.reset();
  }
}

TEST_F(ServiceTest, RequestsOfOneRequesterAreAnsweredInTheirOrder) {
  create(8);
  const pid_t client = forkChild([] {
    for (const int32_t type : {99, int32_t{ARM_MSG_END}, 99}) {
      if (armtest::putRequest(type, false) != 0) return 1;
    }
    for (const int32_t expected :
         {armengine::STATUS_UNKNOWN_MESSAGE, armengine::STATUS_UNKNOWN_APPLICATION,
          armengine::STATUS_UNKNOWN_MESSAGE}) {
      TArmReplyMessage reply = {};
      if (armtest::getReply(&reply) != 0 || reply.result != expected) return 2;
    }
    return 0;
  });
  EXPECT_TRUE(waitUntil([this] { return queues_->requests().depth() == 3; }));
  armengine::Service service(*queues_, dispatcher_);
  std::thread thread([&service] { EXPECT_TRUE(service.run()); });
  EXPECT_EQ(0, armtest::exitCodeOf(client));
  queues_->requests().interrupt();
  thread.join();
}

TEST_F(ServiceTest, WhatWasTakenBeforeAStopIsAnswered) {
  create(64, 40);
  constexpr int CLIENTS = 20;
  pid_t clients[CLIENTS];
  for (pid_t& client : clients) {
    client = forkChild([] {
      if (armtest::putRequest(ARM_MSG_INIT, false) != 0) return 1;
      return armtest::waitForReply();
    });
  }
  EXPECT_TRUE(waitUntil([this] { return queues_->requests().depth() > 0; }));
  const pid_t stopper = forkChild([] {
    CIPCSimpleQueue<TArmMessage> queue("/var/kelp/controls_ae.kelp");
    return queue.SetState(1) == 0 ? 0 : 1;
  });
  armengine::Service service(*queues_, dispatcher_);
  EXPECT_FALSE(service.run());
  EXPECT_EQ(0, armtest::exitCodeOf(stopper));
  EXPECT_TRUE(waitUntil([this] { return queues_->replies().usedItems() == 0; }));
  // Now the others' calls end, whose requests nobody takes or who came too late.
  queues_.reset();
  uint64_t answered = 0;
  for (const pid_t client : clients) answered += armtest::exitCodeOf(client) == 0 ? 1U : 0U;
  EXPECT_EQ(service.served(), answered);
}

TEST_F(ServiceTest, InterruptionEndsIt) {
  create(4);
  armengine::Service service(*queues_, dispatcher_);
  queues_->requests().interrupt();
  EXPECT_TRUE(service.run());
}

TEST_F(ServiceTest, ReplyWithoutRoomIsDeliveredWhenThereIsRoom) {
  create(1);
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  const pid_t occupant = forkChild(armtest::waitForReply);
  EXPECT_TRUE(armtest::sleeperComes(set, 2));
  const Gate may_take;
  const pid_t client = forkChild([&may_take] {
    TArmReplyMessage reply = {};
    if (armtest::putRequest(ARM_MSG_INIT, false) != 0 || !may_take.pass()) return 1;
    return armtest::getReply(&reply) == 0 && reply.result > 0 ? 0 : 2;
  });
  EXPECT_TRUE(waitUntil([this] { return queues_->requests().depth() == 1; }));
  armengine::Service service(*queues_, dispatcher_);
  std::thread thread([&service] { EXPECT_TRUE(service.run()); });
  EXPECT_TRUE(waitUntil([this] { return queues_->requests().depth() == 0; }));
  kill(occupant, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(occupant));
  EXPECT_TRUE(waitUntil([this] { return queues_->replies().headsInUse() == 0; }));
  EXPECT_TRUE(may_take.open());
  EXPECT_EQ(0, armtest::exitCodeOf(client));
  queues_->requests().interrupt();
  thread.join();
}

/// A client that finds no head record for its first call, and then makes two more calls, each of
/// which must get its own answer.
int failThenRepeat(const Gate& has_failed, const Gate& may_repeat) {
  TArmReplyMessage reply = {};
  if (armtest::putRequest(ARM_MSG_INIT, false) != 0) return 1;
  if (armtest::getReply(&reply) != -274) return 2;
  if (!has_failed.open() || !may_repeat.pass()) return 3;
  if (armtest::putRequest(ARM_MSG_END, false) != 0 || armtest::getReply(&reply) != 0) return 4;
  if (reply.result != armengine::STATUS_UNKNOWN_APPLICATION) return 5;
  if (armtest::putRequest(99, false) != 0 || armtest::getReply(&reply) != 0) return 6;
  return reply.result == armengine::STATUS_UNKNOWN_MESSAGE ? 0 : 7;
}

TEST_F(ServiceTest, RepliesToCallsThatFailedForWantOfARecordAreNotFoundByTheNextCalls) {
  create(2);
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  const pid_t occupants[2] = {forkChild(armtest::waitForReply), forkChild(armtest::waitForReply)};
  EXPECT_TRUE(waitUntil([set] {
    return armtest::semaphoreWaiters(set, 2) + armtest::semaphoreWaiters(set, 3) == 2;
  }));
  // The occupants' records are freed between the first client's request and the second's.
  const Gate has_failed;
  const Gate may_repeat[2];
  pid_t clients[2];
  for (int i = 0; i < 2; ++i) {
    clients[i] = forkChild([&, i] { return failThenRepeat(has_failed, may_repeat[i]); });
    EXPECT_TRUE(has_failed.pass());
  }
  for (const pid_t occupant : occupants) {
    kill(occupant, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(occupant));
  }
  armengine::Service service(*queues_, dispatcher_);
  std::thread thread([&service] { EXPECT_TRUE(service.run()); });
  EXPECT_TRUE(waitUntil(
      [this] { return queues_->requests().depth() == 0 && queues_->replies().headsInUse() == 0; }));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(may_repeat[i].open());
    EXPECT_EQ(0, armtest::exitCodeOf(clients[i]));
  }
  queues_->requests().interrupt();
  thread.join();
}

// Whether records were short just before some were freed cannot be seen afterwards: each request
// made before may be that of a call that has failed for want of one.
TEST_F(ServiceTest, RequestsMadeBeforeRecordsCameFreeGetNoRecordUntilTheirRequestersWait) {
  constexpr int REQUESTS = 24;  // more than are taken together
  create(2 * REQUESTS, REQUESTS);
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  const pid_t departed = forkChild(armtest::waitForReply);
  EXPECT_TRUE(armtest::sleeperComes(set, 2));
  kill(departed, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(departed));
  CIPCSimpleQueue<TArmMessage> queue("/var/kelp/controls_ae.kelp");
  TArmMessage message = armtest::request(ARM_MSG_INIT);
  for (int i = 0; i + 1 < REQUESTS; ++i) ASSERT_EQ(0, queue.Put(message));
  ++message.sender_id.threadId;
  ASSERT_EQ(0, queue.Put(message));

  armengine::Service service(*queues_, dispatcher_);
  std::thread thread([&service] { EXPECT_TRUE(service.run()); });
  EXPECT_TRUE(waitUntil([this] { return queues_->requests().depth() == 0; }));
  queues_->requests().interrupt();
  thread.join();
  EXPECT_EQ(1U, queues_->replies().headsInUse());
}

TEST_F(ServiceTest, RecordsOfTheDepartedAreFreedWithoutAnyRequest) {
  create(4);
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  const pid_t waiter = forkChild(armtest::waitForReply);
  EXPECT_TRUE(armtest::sleeperComes(set, 2));
  kill(waiter, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(waiter));
  EXPECT_EQ(1U, queues_->replies().headsInUse());
  armengine::Service service(*queues_, dispatcher_);
  std::thread thread([&service] { EXPECT_TRUE(service.run()); });
  EXPECT_TRUE(waitUntil([this] { return queues_->replies().headsInUse() == 0; }));
  queues_->requests().interrupt();
  thread.join();
}

}  // namespace
