// The program armengine with real clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "armext.h"
#include "ipcobjects.h"
#include "process.h"
#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::controlPath;
using armtest::EngineProcess;
using armtest::forkChild;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::waitUntil;
using armtest::wordsOfLine;

// Offsets in the request queue's segment.
constexpr size_t REQUEST_COUNT = 0;
constexpr size_t STATE = 8;

// What this engine answers to a handle that it never gave.
constexpr int32_t UNKNOWN_HANDLE = -103;

struct Registered {
  int32_t application;
  int32_t tran_class;
};

Registered registerClass(const char* application, const char* tran_class) {
  const int32_t id = arm_init(application, "*", 0, nullptr, 0);
  return {id, arm_getid(id, tran_class, nullptr, 0, nullptr, 0)};
}

int32_t measureOnce(int32_t tran_class, int32_t status) {
  return arm_stop(arm_start(tran_class, 0, nullptr, 0), status, 0, nullptr, 0);
}

bool registered() {
  const Registered ids = registerClass("shop", "order");
  return ids.application > 0 && ids.tran_class > 0;
}

void expectNothingLeft() {
  EXPECT_TRUE(armtest::nameFiles().empty());
  EXPECT_EQ(0U, armtest::ipcObjects());
}

TEST(ArmEngine, SaysWhenItServes) {
  EngineProcess engine;
  EXPECT_EQ(0U, engine.ready().find("armengine: serving "));
  EXPECT_TRUE(registered());
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, SignalsEndItAndNothingIsLeft) {
  for (const int number : {SIGTERM, SIGINT}) {
    EngineProcess engine;
    EXPECT_EQ(4U, armtest::nameFiles().size());
    EXPECT_TRUE(registered());
    EXPECT_EQ(0, engine.end(number));
    expectNothingLeft();
  }
}

TEST(ArmEngine, WithoutReportItPrintsNothingMore) {
  EngineProcess engine(std::vector<std::string>{});
  EXPECT_TRUE(registered());
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ("", engine.report());
}

TEST(ArmEngine, CapacitiesAreThoseOfTheOptions) {
  EngineProcess engine({"--requests", "7", "--requesters", "5"});
  EXPECT_EQ(28U + 7 * 4116, armtest::segmentSize(armtest::segmentAt(controlPath("ae.kelp_mem"))));
  EXPECT_EQ(12U + 5 * 548, armtest::segmentSize(armtest::segmentAt(controlPath("ea.kelp"))));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, BadInputIsOneSentenceAndExitCodeTwo) {
  for (const char* arguments :
       {"--requests 0", "--requesters x", "--what", "--prefix a/b", "--prefix", "extra"}) {
    const Ran ran = runShell(builtProgram("armengine") + " " + arguments);
    EXPECT_EQ(2, ran.status) << arguments;
    EXPECT_EQ("", ran.out) << arguments;
    EXPECT_EQ(0U, ran.err.find("armengine: ")) << arguments;
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  }
  expectNothingLeft();
}

TEST(ArmEngine, HelpIsPrinted) {
  const Ran ran = runShell(builtProgram("armengine") + " --help");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ(0U, ran.out.find("usage: armengine"));
  EXPECT_EQ("", ran.err);
}

TEST(ArmEngine, SecondOneWithTheSamePrefixIsRefusedInOneSentence) {
  EngineProcess engine({"--prefix", "blue", "--report"});
  const Ran second = runShell(builtProgram("armengine") + " --prefix blue");
  EXPECT_EQ(1, second.status);
  EXPECT_EQ("", second.out);
  EXPECT_EQ(1U, linesWith(second.err, "")) << second.err;
  EXPECT_NE(std::string::npos, second.err.find("another engine"));
  ASSERT_EQ(0, setenv("ARM_AGENT_PREFIX", "blue", 1));
  EXPECT_TRUE(registered());
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, EnginesOfTwoPrefixesServeTheirOwnClients) {
  EngineProcess blue({"--prefix", "blue", "--report"});
  EngineProcess plain;
  const pid_t client = forkChild([] {
    (void)setenv("ARM_AGENT_PREFIX", "blue", 1);
    return registerClass("in blue", "order").tran_class > 0 ? 0 : 1;
  });
  EXPECT_EQ(0, armtest::exitCodeOf(client));
  EXPECT_GT(registerClass("in plain", "order").tran_class, 0);
  EXPECT_EQ(0, blue.end(SIGTERM));
  EXPECT_EQ(0, plain.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(blue.report(), "in blue"));
  EXPECT_EQ(0U, linesWith(blue.report(), "in plain"));
  EXPECT_EQ(1U, linesWith(plain.report(), "in plain"));
}

TEST(ArmEngine, StatusesAreInTheTable) {
  EngineProcess engine;
  const Registered ids = registerClass("shop", "order");
  for (const int32_t status : {ARM_GOOD, ARM_GOOD, ARM_GOOD, ARM_FAILED, ARM_FAILED, ARM_ABORT}) {
    EXPECT_EQ(0, measureOnce(ids.tran_class, status));
  }
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto words = wordsOfLine(engine.report(), {"shop", "order"});
  ASSERT_GE(words.size(), 6U) << engine.report();
  const std::vector<std::string> counts(words.begin(), words.begin() + 6);
  EXPECT_EQ((std::vector<std::string>{"shop", "order", "6", "3", "2", "1"}), counts);
}

TEST(ArmEngine, CorrelatorLinksAChildInAnotherProcess) {
  EngineProcess engine;
  const Registered ids = registerClass("shop", "order");
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrReq_f;
  const int32_t parent = arm_start(ids.tran_class, 0, &block, sizeof block);
  EXPECT_EQ(ARM_CorrReq_f | ARM_CorrGen_f, block.flags[0]);
  EXPECT_EQ(168, block.correlator.bytes[0] * 256 + block.correlator.bytes[1]);
  EXPECT_EQ(0, block.correlator.bytes[109]);
  const pid_t child = forkChild([&block] {
    block.flags[0] = ARM_CorrPar_f;
    const Registered own = registerClass("stock", "query");
    const int32_t handle = arm_start(own.tran_class, 0, &block, sizeof block);
    return handle > 0 && arm_stop(handle, ARM_FAILED, 0, nullptr, 0) == 0 ? 0 : 1;
  });
  EXPECT_EQ(0, armtest::exitCodeOf(child));
  EXPECT_EQ(0, arm_stop(parent, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(engine.report(), "shop: order  ")) << engine.report();
  EXPECT_EQ(1U, linesWith(engine.report(), "`- query  ")) << engine.report();
}

TEST(ArmEngine, WrongIdsAreAnsweredWithANegativeStatus) {
  EngineProcess engine;
  const Registered ids = registerClass("shop", "order");
  EXPECT_EQ(ids.tran_class, arm_getid(ids.application, "order", "detail", 0, nullptr, 0));
  EXPECT_LT(arm_getid(9999, "order", nullptr, 0, nullptr, 0), 0);
  EXPECT_LT(arm_start(0, 0, nullptr, 0), 0);
  EXPECT_LT(arm_start(9999, 0, nullptr, 0), 0);
  EXPECT_LT(arm_update(9999, 0, nullptr, 0), 0);
  EXPECT_LT(arm_stop(0, ARM_GOOD, 0, nullptr, 0), 0);
  EXPECT_LT(arm_end(9999, 0, nullptr, 0), 0);
  EXPECT_LT(arm_completeTransaction(9999, 0, 0), 0);
  EXPECT_LT(arm_transactionReport(9999, 0, nullptr, 0, 1, 0, 0, 0), 0);
  EXPECT_LT(arm_associateMetricData(9999, "x", 1), 0);
  EXPECT_EQ(0, arm_transactionReport(ids.tran_class, 0, nullptr, 0, 1, ARM_GOOD, 5, 0));
  EXPECT_EQ(0, arm_associateMetricData(ids.tran_class, "x", 1));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, OpenInstancesOutliveTheirApplication) {
  EngineProcess engine;
  const Registered ids = registerClass("shop", "order");
  const int32_t handle = arm_start(ids.tran_class, 0, nullptr, 0);
  EXPECT_EQ(0, arm_end(ids.application, 0, nullptr, 0));
  EXPECT_LT(arm_start(ids.tran_class, 0, nullptr, 0), 0);
  EXPECT_LT(arm_getid(ids.application, "order", nullptr, 0, nullptr, 0), 0);
  EXPECT_EQ(0, arm_update(handle, 0, nullptr, 0));
  EXPECT_EQ(0, arm_stop(handle, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

int measureWithThreads(int threads, int each) {
  const Registered ids = registerClass("shop", "order");
  std::vector<int> done(static_cast<size_t>(threads), 0);
  std::vector<std::thread> running;
  for (int& count : done) {
    running.emplace_back([&count, ids, each] {
      while (count < each && measureOnce(ids.tran_class, ARM_GOOD) == 0) ++count;
    });
  }
  for (std::thread& thread : running) thread.join();
  for (const int count : done) {
    if (count != each) return 1;
  }
  return 0;
}

TEST(ArmEngine, ManyProcessesAndThreadsAreCountedExactly) {
  EngineProcess engine;
  std::vector<pid_t> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(forkChild([] { return measureWithThreads(4, 25); }));
  }
  for (const pid_t client : clients) EXPECT_EQ(0, armtest::exitCodeOf(client));
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto words = wordsOfLine(engine.report(), {"shop", "order"});
  ASSERT_GE(words.size(), 3U) << engine.report();
  EXPECT_EQ("600", words[2]);
}

/// Calls of two kinds in turn: an answer to the wrong one shows.
bool answersFit(int rounds) {
  const auto refused = [](int32_t result) { return result == -8 || result == -9; };
  for (int i = 0; i < rounds; ++i) {
    const int32_t application = arm_init("shop", "*", 0, nullptr, 0);
    if (application <= 0 && !refused(application)) return false;
    const int32_t status = arm_update(2000000000, 0, nullptr, 0);
    if (status != UNKNOWN_HANDLE && !refused(status)) return false;
  }
  return true;
}

TEST(ArmEngine, AnswersStayWithTheirCallsWhenThreadsAreMoreThanRequesters) {
  EngineProcess engine({"--requesters", "3", "--report"});
  std::vector<int> fitting(10, 0);
  std::vector<std::thread> threads;
  for (int& fits : fitting) threads.emplace_back([&fits] { fits = answersFit(200) ? 1 : 0; });
  for (std::thread& thread : threads) thread.join();
  for (const int fits : fitting) EXPECT_EQ(1, fits);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, ClientsKilledWhileWaitingDoNotStopIt) {
  EngineProcess engine({"--requesters", "4", "--requests", "64", "--report"});
  ASSERT_TRUE(registered());
  engine.signal(SIGSTOP);
  std::vector<pid_t> clients;
  for (int i = 0; i < 12; ++i) clients.push_back(forkChild([] { return registered() ? 0 : 1; }));
  {
    const armtest::Attached memory(controlPath("ae.kelp_mem"));
    EXPECT_TRUE(waitUntil([&memory] { return memory.read<uint16_t>(REQUEST_COUNT) == 12; }));
  }
  for (const pid_t client : clients) {
    kill(client, SIGKILL);
    const int code = armtest::exitCodeOf(client);
    // One that found no head record has failed by itself.
    EXPECT_TRUE(code == 128 + SIGKILL || code == 1) << code;
  }
  engine.signal(SIGCONT);
  EXPECT_TRUE(waitUntil([] { return registered(); }));
  EXPECT_EQ(0, engine.end(SIGTERM));
  expectNothingLeft();
}

TEST(ArmEngine, DamagedRingIsRepairedWhileItWaits) {
  EngineProcess engine;
  ASSERT_TRUE(registered());
  armtest::Attached(controlPath("ae.kelp_mem")).write<uint16_t>(REQUEST_COUNT, 0xFFFF);
  EXPECT_TRUE(waitUntil([] { return registered(); }));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmEngine, KilledOneIsReplacedAndItsClientsGoOn) {
  {
    EngineProcess first({"--requests", "8", "--requesters", "8"});
    ASSERT_TRUE(registered());
    EXPECT_EQ(128 + SIGKILL, first.end(SIGKILL));
    EXPECT_EQ(-2, arm_init("shop", "*", 0, nullptr, 0));
  }
  for (const char* capacity : {"4", "100"}) {
    EngineProcess next({"--requests", capacity, "--requesters", capacity});
    EXPECT_TRUE(registered());
    EXPECT_EQ(128 + SIGKILL, next.end(SIGKILL));
  }
  EngineProcess last;
  EXPECT_TRUE(registered());
  EXPECT_EQ(0, last.end(SIGTERM));
  expectNothingLeft();
}

TEST(ArmEngine, NumbersOfAnEarlierRunMeanNothingToTheNext) {
  int32_t earlier = 0;
  {
    EngineProcess first;
    earlier = arm_start(registerClass("shop", "order").tran_class, 0, nullptr, 0);
    ASSERT_GT(earlier, 0);
    EXPECT_EQ(128 + SIGKILL, first.end(SIGKILL));
  }
  EngineProcess next;
  const int32_t handle = arm_start(registerClass("shop", "order").tran_class, 0, nullptr, 0);
  EXPECT_EQ(UNKNOWN_HANDLE, arm_update(earlier, 0, nullptr, 0));
  EXPECT_EQ(UNKNOWN_HANDLE, arm_stop(earlier, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, arm_stop(handle, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, next.end(SIGTERM));
}

TEST(ArmEngine, StopFromOutsideEndsItWithASentence) {
  const std::string errors = "/tmp/engine-errors";
  ASSERT_NE(nullptr, freopen(errors.c_str(), "w", stderr));
  EngineProcess engine;
  armtest::Attached(controlPath("ae.kelp_mem")).write<uint32_t>(STATE, 2);
  EXPECT_EQ(1, engine.end(0));
  expectNothingLeft();
  EXPECT_EQ("armengine: the queues were stopped or removed from outside\n",
            runShell("cat " + errors).out);
}

// Semaphore 0 of a segment's set (project 1) is its lock.
class LockHolder {
 public:
  explicit LockHolder(const std::string& queue)
      : set_(armtest::setAt(controlPath(queue), 1)), process_(forkChild([this] {
          sembuf take[] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
          if (semop(set_, take, 2) != 0) return 1;
          return raise(SIGSTOP);
        })) {
    EXPECT_TRUE(waitUntil([this] { return armtest::semaphoreValue(set_, 0) == 1; }));
  }
  ~LockHolder() {
    kill(process_, SIGKILL);
    (void)armtest::exitCodeOf(process_);
  }
  pid_t process() const { return process_; }

 private:
  int set_;
  pid_t process_;
};

TEST(ArmEngine, StoppedProgramThatHoldsALockIsNamedAndItsEndIsTold) {
  const std::string errors = "/tmp/engine-errors";
  const auto told = [&errors](const std::string& words) {
    return waitUntil([&] { return linesWith(runShell("cat " + errors).out, words) == 1; });
  };
  for (const auto& [object, queue] :
       {std::pair("ae.kelp_mem", "request queue"), std::pair("ea.kelp", "reply queue")}) {
    ASSERT_NE(nullptr, freopen(errors.c_str(), "w", stderr));
    EngineProcess engine;
    const auto lock = "the lock of the " + std::string(queue);
    {
      const LockHolder holder(object);
      EXPECT_TRUE(told("every call waits: " + lock + " has been held for a second by process " +
                       std::to_string(holder.process())));
      EXPECT_TRUE(told("which is stopped; let it go on (kill -CONT) or end it"));
    }
    EXPECT_TRUE(told(lock + " is free again"));
    EXPECT_TRUE(registered());
    EXPECT_EQ(0, engine.end(SIGTERM));
  }
}

TEST(ArmEngine, ReaderOfItsOutputThatGoesAwayDoesNotStopIt) {
  const pid_t engine = forkChild([] {
    int ends[2];
    if (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 126;
    execl(builtProgram("armengine").c_str(), "armengine", "--report", nullptr);
    return 127;
  });
  EXPECT_TRUE(waitUntil([] { return registered(); }));
  kill(engine, SIGTERM);
  EXPECT_EQ(1, armtest::exitCodeOf(engine)) << "the report could not be written";
  expectNothingLeft();
}

}  // namespace
