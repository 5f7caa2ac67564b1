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
const std::string REQUESTS_LOCK = "requests 0:0:0 0:1:SEM_UNDO";
const std::string REQUESTS_UNLOCK = "requests 0:-1:SEM_UNDO|IPC_NOWAIT";
const std::string REPLIES_LOCK = "replies 0:0:0 0:1:SEM_UNDO";
const std::string REPLIES_UNLOCK = "replies 0:-1:SEM_UNDO|IPC_NOWAIT";

const Steps BEFORE_WAKE = {"requests GETVAL 1", "getpid", "requests GETVAL 1", REQUESTS_LOCK};
const Steps WAKE = {"empty 1:0:0 1:1:SEM_UNDO", "empty GETVAL 0", "empty 0:1:0",
                    "empty 1:-1:SEM_UNDO|IPC_NOWAIT"};
const Steps AFTER_WAKE = {REQUESTS_UNLOCK, "getpid",         "replies GETVAL 1",
                          REPLIES_LOCK,    REPLIES_UNLOCK,   "wake 2:-1:0",
                          REPLIES_LOCK,    "wake GETNCNT 2", REPLIES_UNLOCK};

Steps operator+(Steps left, const Steps& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Steps idleExchange() {
  return BEFORE_WAKE + WAKE + AFTER_WAKE;
}

Steps busyExchange() {
  return BEFORE_WAKE + AFTER_WAKE;
}

const std::vector<std::string> POSTING_CALLS = {"arm_init",
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
const std::vector<std::string> LOCAL_CALLS = {"arm_getCorrelatorKey", "SetExpectedCodeset",
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
  static const std::regex GETPID_LINE(R"(^getpid\(\).*)");
  static const std::regex CONTROL(R"(^semctl\((\d+), (\d+), (?:IPC_64\|)?(\w+).*)");
  static const std::regex OPERATE(R"(^sem(?:timed)?op(?:_time64)?\((\d+), \[(.*)\], \d.*)");
  static const std::regex OPERATION(
      R"(\{(?:sem_num=)?(\d+), (?:sem_op=)?(-?\d+), (?:sem_flg=)?([^}]*)\})");
  std::smatch parts;
  if (std::regex_match(line, GETPID_LINE)) return "getpid";
  const auto name_of = [&names](const std::string& number) {
    const auto name = names.find(number);
    return name != names.end() ? name->second : "set " + number;
  };
  if (std::regex_match(line, parts, CONTROL)) {
    return name_of(parts[1]) + " " + parts[3].str() + " " + parts[2].str();
  }
  if (!std::regex_match(line, parts, OPERATE)) return line;
  std::string step = name_of(parts[1]);
  const std::string operations = parts[2];
  for (std::sregex_iterator each(operations.begin(), operations.end(), OPERATION), end; each != end;
       ++each) {
    step += " " + (*each)[1].str() + ":" + (*each)[2].str() + ":" + (*each)[3].str();
  }
  return step;
}

/// The steps between the marks of each call.
std::map<std::string, Steps> readTrace(const std::string& path) {
  static const std::regex MARK(R"re(^write\(-1, "(\w+)", \d+\) .*)re");
  const std::map<std::string, std::string> names = setNames();
  std::map<std::string, Steps> calls;
  Steps* current = nullptr;
  std::ifstream trace(path);
  for (std::string line; std::getline(trace, line);) {
    std::smatch parts;
    if (std::regex_match(line, parts, MARK)) {
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
  expectSteps(idleExchange(), POSTING_CALLS, trace());
}

TEST_F(SystemCalls, ACallThatFindsTheRingOccupiedMakesThirteen) {
  const CountingEngine engine(Ring::occupied);
  ASSERT_TRUE(engine.isReady());
  ASSERT_EQ(13U, busyExchange().size());
  expectSteps(busyExchange(), POSTING_CALLS, trace());
}

TEST_F(SystemCalls, CallsThatNeedNoEngineMakeNone) {
  const CountingEngine engine(Ring::empty);
  ASSERT_TRUE(engine.isReady());
  expectSteps({}, LOCAL_CALLS, trace());
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
  EXPECT_EQ(POSTING_CALLS.size(), calls.size());
  for (const auto& [name, steps] : calls) EXPECT_EQ(Steps{"requests GETVAL 1"}, steps) << name;
}

// The first name file is looked for.
TEST_F(SystemCalls, CallsWithoutAnEngineMakeOne) {
  const auto calls = trace();
  for (const std::string& name : POSTING_CALLS) {
    ASSERT_EQ(1U, calls.count(name)) << name;
    const Steps& steps = calls.at(name);
    ASSERT_EQ(1U, steps.size()) << name;
    EXPECT_TRUE(std::regex_search(
        steps[0], std::regex(R"re(^\w*stat\w*\(.*"/var/kelp/controls_ae\.kelp_ovr".* ENOENT)re")))
        << steps[0];
  }
  expectSteps({}, LOCAL_CALLS, calls);
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
