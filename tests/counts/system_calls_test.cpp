// The system calls of every exported call, seen by a tracer: on an open connection a call makes
// those that the exchange with the engine needs, in this order, and no other.

#include <gtest/gtest.h>
#include <sys/sem.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "CountingEngine.h"
#include "ipcobjects.h"
#include "process.h"

namespace armtest {

namespace {

using Steps = std::vector<std::string>;
using Ring = CountingEngine::Ring;

// "set operation"; the operations of a semop are written number:change:flags.
const std::string kRequestsLock = "requests 0:0:0 0:1:SEM_UNDO";
const std::string kRequestsUnlock = "requests 0:-1:SEM_UNDO|IPC_NOWAIT";
const std::string kRepliesLock = "replies 0:0:0 0:1:SEM_UNDO";
const std::string kRepliesUnlock = "replies 0:-1:SEM_UNDO|IPC_NOWAIT";

const Steps kBeforeWake = {"requests GETVAL 1", "getpid", "requests GETVAL 1", kRequestsLock};
const Steps kWake = {"empty 1:0:0 1:1:SEM_UNDO", "empty GETVAL 0", "empty 0:1:0",
                     "empty 1:-1:SEM_UNDO|IPC_NOWAIT"};
const Steps kAfterWake = {kRequestsUnlock, "getpid",         "replies GETVAL 1",
                          kRepliesLock,    kRepliesUnlock,   "wake 2:-1:0",
                          kRepliesLock,    "wake GETNCNT 2", kRepliesUnlock};

Steps operator+(Steps left, const Steps& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Steps idleExchange() {
  return kBeforeWake + kWake + kAfterWake;
}

Steps busyExchange() {
  return kBeforeWake + kAfterWake;
}

const std::vector<std::string> kPostingCalls = {"arm_init",
                                                "w_ArmInit",
                                                "arm_getid",
                                                "w_ArmGetID",
                                                "arm_start",
                                                "arm_update",
                                                "arm_stop",
                                                "arm_transactionReport",
                                                "arm_transactionInstanceReport",
                                                "arm_completeTransaction",
                                                "arm_completeTransactionInstance",
                                                "arm_associateMetricData",
                                                "arm_end"};
const std::vector<std::string> kLocalCalls = {"arm_getCorrelatorKey", "SetExpectedCodeset",
                                              "GetExpectedCodeset"};

/// The semaphore sets of the connection, by their numbers in a trace.
std::map<std::string, std::string> setNames() {
  const auto number = [](const char* path, int project) {
    return std::to_string(setAt(path, project));
  };
  return {{number("/var/kelp/controls_ae.kelp_mem", 1), "requests"},
          {number("/var/kelp/controls_ae.kelp_emp", 1), "empty"},
          {number("/var/kelp/controls_ea.kelp", 1), "replies"},
          {number("/var/kelp/controls_ea.kelp", 3), "wake"}};
}

/// One line of the trace in the form of the lists above; a line of any other kind stays as it is.
std::string stepOf(const std::string& line, const std::map<std::string, std::string>& names) {
  static const std::regex kGetpid(R"(^getpid\(\).*)");
  static const std::regex kControl(R"(^semctl\((\d+), (\d+), (?:IPC_64\|)?(\w+).*)");
  static const std::regex kOperate(R"(^sem(?:timed)?op(?:_time64)?\((\d+), \[(.*)\], \d.*)");
  static const std::regex kOperation(
      R"(\{(?:sem_num=)?(\d+), (?:sem_op=)?(-?\d+), (?:sem_flg=)?([^}]*)\})");
  std::smatch parts;
  if (std::regex_match(line, kGetpid)) return "getpid";
  const auto nameOf = [&names](const std::string& number) {
    const auto name = names.find(number);
    return name != names.end() ? name->second : "set " + number;
  };
  if (std::regex_match(line, parts, kControl)) {
    return nameOf(parts[1]) + " " + parts[3].str() + " " + parts[2].str();
  }
  if (!std::regex_match(line, parts, kOperate)) return line;
  std::string step = nameOf(parts[1]);
  const std::string operations = parts[2];
  for (std::sregex_iterator each(operations.begin(), operations.end(), kOperation), end;
       each != end; ++each) {
    step += " " + (*each)[1].str() + ":" + (*each)[2].str() + ":" + (*each)[3].str();
  }
  return step;
}

/// The steps between the marks of each call.
std::map<std::string, Steps> readTrace(const std::string& path) {
  static const std::regex kMark(R"re(^write\(-1, "(\w+)", \d+\) .*)re");
  const std::map<std::string, std::string> names = setNames();
  std::map<std::string, Steps> calls;
  Steps* current = nullptr;
  std::ifstream trace(path);
  for (std::string line; std::getline(trace, line);) {
    std::smatch parts;
    if (std::regex_match(line, parts, kMark)) {
      current = parts[1] == "end" ? nullptr : &calls[parts[1]];
    } else if (current != nullptr) {
      current->push_back(stepOf(line, names));
    }
  }
  return calls;
}

class SystemCalls : public testing::Test {
 protected:
  /// The steps of the calls that a mode of the client makes.
  static std::map<std::string, Steps> trace(const char* mode = "calls") {
    const std::string client = std::string(ARM_BUILD_DIR) + "/bin/counts_client";
    const std::string path = "/tmp/counts.trace";
    const pid_t tracer = forkChild([&] {
      execlp("strace", "strace", "-qq", "-o", path.c_str(), client.c_str(), mode, nullptr);
      return 127;
    });
    EXPECT_EQ(0, exitCodeOf(tracer)) << "strace and " << client;
    return readTrace(path);
  }

  static void expectSteps(const Steps& expected, const std::vector<std::string>& names,
                          const std::map<std::string, Steps>& calls) {
    for (const std::string& name : names) {
      ASSERT_EQ(1U, calls.count(name)) << name;
      EXPECT_EQ(expected, calls.at(name)) << name;
    }
  }
};

TEST_F(SystemCalls, ACallToAnIdleEngineMakesSeventeen) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  ASSERT_EQ(17U, idleExchange().size());
  expectSteps(idleExchange(), kPostingCalls, trace());
}

TEST_F(SystemCalls, ACallThatFindsTheRingOccupiedMakesThirteen) {
  const CountingEngine engine(Ring::occupied);
  ASSERT_TRUE(engine.isReady());
  ASSERT_EQ(13U, busyExchange().size());
  expectSteps(busyExchange(), kPostingCalls, trace());
}

TEST_F(SystemCalls, CallsThatNeedNoEngineMakeNone) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  expectSteps({}, kLocalCalls, trace());
}

// The creator's semaphore is read, and nothing else is done.
TEST_F(SystemCalls, CallsAboutATransactionThatIsNotMeasuredMakeOne) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  const auto calls = trace("ignored");
  EXPECT_EQ(8U, calls.size());
  for (const auto& [name, steps] : calls) EXPECT_EQ(Steps{"requests GETVAL 1"}, steps) << name;
}

TEST_F(SystemCalls, CallsWithArgumentsThatAreRefusedMakeOne) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  const auto calls = trace("rejected");
  EXPECT_EQ(kPostingCalls.size(), calls.size());
  for (const auto& [name, steps] : calls) EXPECT_EQ(Steps{"requests GETVAL 1"}, steps) << name;
}

// The first name file is looked for.
TEST_F(SystemCalls, CallsWithoutAnEngineMakeOne) {
  const auto calls = trace();
  for (const std::string& name : kPostingCalls) {
    ASSERT_EQ(1U, calls.count(name)) << name;
    const Steps& steps = calls.at(name);
    ASSERT_EQ(1U, steps.size()) << name;
    EXPECT_TRUE(std::regex_search(
        steps[0], std::regex(R"re(^\w*stat\w*\(.*"/var/kelp/controls_ae\.kelp_ovr".* ENOENT)re")))
        << steps[0];
  }
  expectSteps({}, kLocalCalls, calls);
}

// How the C library finds the name is its own matter.
TEST_F(SystemCalls, TheLoginNameIsLookedUpBeforeTheExchange) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  const auto calls = trace("login");
  ASSERT_EQ(1U, calls.count("arm_init"));
  const Steps& steps = calls.at("arm_init");
  const Steps exchange = idleExchange();
  ASSERT_GT(steps.size(), exchange.size());
  EXPECT_EQ(1, std::count_if(steps.begin(), steps.end(),
                             [](const std::string& step) { return step.rfind("getuid", 0) == 0; }));
  // Engine alive and sender first, then the name, then the rest.
  EXPECT_TRUE(std::equal(exchange.begin(), exchange.begin() + 2, steps.begin()));
  EXPECT_TRUE(std::equal(exchange.begin() + 2, exchange.end(),
                         steps.end() - static_cast<std::ptrdiff_t>(exchange.size() - 2)));
}

TEST_F(SystemCalls, SixteenCallsAreCounted) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  EXPECT_EQ(16U, trace().size());
}

}  // namespace

}  // namespace armtest
