// Which clauses armcontract finds broken, and in whom.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "process.h"

namespace {

using armtest::exitCodeOf;
using armtest::forkChild;
using armtest::waitUntil;

using NameSet = std::set<std::string>;

const std::string BIN = ARM_BUILD_DIR "/bin/";
const std::string ARMCONTRACT = BIN + "armcontract";

struct Ran {
  int status;
  std::string out;
};

/// Runs a shell command; several threads may do so at once.
Ran run(const std::string& command) {
  std::FILE* output = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char part[4096];
  for (size_t length; (length = fread(part, 1, sizeof part, output)) > 0;) {
    text.append(part, length);
  }
  const int status = pclose(output);
  return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), text};
}

/// NameSet of the clauses with a verdict, or of all that are listed.
NameSet clausesThat(const std::string& verdict, const std::string& text) {
  NameSet names;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    std::string name;
    if (words >> word >> name && word == verdict) names.insert(name);
  }
  return names;
}

size_t numberOfClauses() {
  const std::string list = run(ARMCONTRACT + " --list").out;
  return static_cast<size_t>(std::count(list.begin(), list.end(), '\n'));
}

std::string faultyEngine(const std::string& fault) {
  return BIN + "faulty_engine 16 100 " + fault;
}

/// An engine that breaks more than the clause that its fault is named after, or cannot be looked at
/// by all clauses in a reasonable time.
struct Fault {
  std::string name;
  NameSet also = {};
  std::string options = "";
};

Ran lookAt(const Fault& fault, int patience) {
  return run(ARMCONTRACT + " --patience " + std::to_string(patience) + " --prefix " + fault.name +
             " " + fault.options + " -- " + faultyEngine(fault.name));
}

NameSet brokenBy(const Fault& fault) {
  NameSet names = fault.also;
  names.insert(fault.name);
  return names;
}

/// With little patience a busy machine can look like a fault, or leave clauses unchecked. Nearly
/// all of the time is spent in waiting for what a fault keeps from happening.
Ran lookImpatientlyAt(const Fault& fault) {
  const Ran ran = lookAt(fault, 1);
  return clausesThat("broken", ran.out) == brokenBy(fault) ? ran : lookAt(fault, 10);
}

void expectFound(const Fault& fault, const Ran& ran) {
  EXPECT_EQ(brokenBy(fault), clausesThat("broken", ran.out)) << fault.name << "\n" << ran.out;
  EXPECT_EQ(1, ran.status) << fault.name;
}

/// Looks at all these engines at the same time, each with a prefix of its own.
void expectEachIsFound(const std::vector<Fault>& faults) {
  std::vector<Ran> results(faults.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < faults.size(); ++i) {
    threads.emplace_back([&, i] { results[i] = lookImpatientlyAt(faults[i]); });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < faults.size(); ++i) expectFound(faults[i], results[i]);
}

// ---- engines that keep the contract -------------------------------------------------------------

void expectAllHold(const std::string& engine) {
  const Ran ran = run(ARMCONTRACT + " --prefix all -- " + engine);
  EXPECT_EQ(0, ran.status) << ran.out;
  EXPECT_EQ(numberOfClauses(), clausesThat("holds", ran.out).size()) << ran.out;
}

TEST(Armcontract, AllClausesHoldForArmengine) {
  expectAllHold(BIN + "armengine --requests 32 --requesters 40");
}

TEST(Armcontract, AllClausesHoldForArmengineWithItsUsualSizes) {
  expectAllHold(BIN + "armengine");
}

TEST(Armcontract, AllClausesHoldForAnotherEngine) {
  expectAllHold(faultyEngine(""));
}

TEST(Armcontract, AllClausesHoldForAnEngineWhoseLastHeadRecordIsInUse) {
  expectAllHold(faultyEngine("last-head-in-use"));
}

TEST(Armcontract, AllClausesHoldForAnEngineOfTheOtherWidth) {
  const std::string other = ARM_OTHER_BUILD_DIR "/bin/armengine";
  if (access(other.c_str(), X_OK) != 0) {
    // Only trees that know one width have none.
    EXPECT_STREQ("", ARM_OTHER_BUILD_DIR);
    return;
  }
  expectAllHold(other + " --requests 32 --requesters 40");
}

// ---- engines that do not ------------------------------------------------------------------------

TEST(Armcontract, FaultsOfCreationAreFound) {
  expectEachIsFound({{"keys"},
                     {"lock-sets"},
                     {"creator"},
                     {"permissions"},
                     {"counting-semaphores"},
                     {"request-size"},
                     {"running"},
                     {"version"},
                     {"reply-size"},
                     {"wake-up-set"},
                     {"head-semaphores"},
                     {"lists"}});
}

TEST(Armcontract, FaultsWithRequestsAreFound) {
  expectEachIsFound(
      {// Whatever needs the lock waits in vain.
       {"locks", {}, "--clause locks --clause keys --clause running --clause creator"},
       {"ring"},
       {"drain"},
       {"false-wake-up"},
       {"round"},
       {"full"},
       {"waiting-writer"},
       {"answer-complete"},
       {"answer-metric-data"},
       {"answer-unknown"},
       {"sender"}});
}

TEST(Armcontract, FaultsOfAnswersAreFound) {
  expectEachIsFound({{"ids"},
                     {"equal-classes"},
                     {"correlator"},
                     {"ignore-byte"},
                     {"no-correlator"},
                     {"foreign-parent"}});
}

TEST(Armcontract, FaultsWithRepliesAreFound) {
  expectEachIsFound({{"claim"},
                     {"own-head"},
                     {"raise"},
                     {"counts"},
                     {"one-head"},
                     {"crowd"},
                     {"dead-waiter"},
                     {"dead-reply"},
                     {"living-waiter"}});
}

TEST(Armcontract, TrustInSharedMemoryIsFound) {
  expectEachIsFound({{"bad-records"},
                     {"bad-ring"},
                     {"bad-free-list"},
                     {"bad-list"},
                     {"bad-cycle"},
                     {"bad-head"}});
}

TEST(Armcontract, FaultsOfLifeAndDeathAreFound) {
  expectEachIsFound({{"second-engine"},
                     {"stop-states"},
                     // A wake-up set that is left behind is both.
                     {"stop-wakes", {"stop-removes"}},
                     {"stop-removes"},
                     {"death"},
                     {"start-order"},
                     {"new-sets"},
                     {"overflow-kept"},
                     {"release"},
                     {"clean-start"}});
}

// ---- the program --------------------------------------------------------------------------------

/// An engine that armcontract has not started.
class RunningEngine {
 public:
  RunningEngine()
      : process_(forkChild([] {
          (void)execl((BIN + "faulty_engine").c_str(), "faulty_engine", "16", "100", nullptr);
          return 127;
        })) {}
  ~RunningEngine() {
    (void)kill(process_, SIGTERM);
    (void)exitCodeOf(process_);
  }

 private:
  pid_t process_;
};

TEST(Armcontract, EngineInUseIsOnlyLookedAt) {
  const RunningEngine engine;
  Ran ran;
  ASSERT_TRUE(waitUntil([&ran] {
    ran = run(ARMCONTRACT);
    return ran.status == 0;
  })) << ran.out;
  EXPECT_EQ(NameSet(), clausesThat("broken", ran.out)) << ran.out;
  const NameSet unchecked = clausesThat("unchecked", ran.out);
  EXPECT_EQ(numberOfClauses(), clausesThat("holds", ran.out).size() + unchecked.size());
  for (const char* harmful : {"bad-ring", "death", "stop-wakes", "dead-waiter", "second-engine"}) {
    EXPECT_EQ(1U, unchecked.count(harmful)) << harmful;
  }
  EXPECT_EQ(0, run(ARMCONTRACT).status) << "the engine has suffered";
}

TEST(Armcontract, EngineInUseIsNotEndedForOneOfItsOwn) {
  const RunningEngine engine;
  ASSERT_TRUE(waitUntil([] { return run(ARMCONTRACT + " --clause running").status == 0; }));
  const Ran ran = run(ARMCONTRACT + " -- " + faultyEngine(""));
  EXPECT_EQ(1, ran.status);
  EXPECT_NE(std::string::npos, ran.out.find("an engine serves this prefix already")) << ran.out;
}

TEST(Armcontract, WithoutAnEngineItSaysSo) {
  const Ran ran = run(ARMCONTRACT);
  EXPECT_EQ(1, ran.status);
  EXPECT_NE(std::string::npos, ran.out.find("no living engine serves this prefix")) << ran.out;
}

TEST(Armcontract, EngineThatEndsAtOnceHoldsNoClause) {
  const Ran ran = run(ARMCONTRACT + " --prefix none -- /bin/true");
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(numberOfClauses(), clausesThat("unchecked", ran.out).size()) << ran.out;
}

TEST(Armcontract, JsonNamesEveryVerdict) {
  const Ran ran = run(ARMCONTRACT + " --json --clause ids --clause lists --prefix 'a\"b' -- " +
                      faultyEngine("ids"));
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(
      "{\"prefix\": \"a\\\"b\",\n"
      "\"holds\": 1, \"broken\": 1, \"unchecked\": 0,\n"
      "\"clauses\": [\n"
      "  {\"name\": \"ids\", \"sentence\": \"Ids and handles are positive, and not 2147483647.\", "
      "\"section\": 6, \"result\": \"broken\", \"why\": \"an application id is -5\"},\n"
      "  {\"name\": \"lists\", \"sentence\": \"Each item is either free or in the list of one head "
      "record.\", \"section\": 5, \"result\": \"holds\", \"why\": \"\"}\n"
      "]}\n",
      ran.out);
}

TEST(Armcontract, ListNeedsNoEngine) {
  const Ran ran = run(ARMCONTRACT + " --list");
  EXPECT_EQ(0, ran.status);
  EXPECT_NE(std::string::npos, ran.out.find("The ring goes round. (section 4)")) << ran.out;
  const Ran json = run(ARMCONTRACT + " --list --json --clause round");
  EXPECT_EQ(0, json.status);
  EXPECT_EQ(
      "[\n  {\"name\": \"round\", \"sentence\": \"The ring goes round.\", \"section\": 4}\n]\n",
      json.out);
}

TEST(Armcontract, BadInputIsOneSentenceAndExitCodeTwo) {
  for (const char* arguments : {"--what", "--prefix", "--patience 0", "--patience x", "--clause no",
                                "extra", "--json=1", "--"}) {
    const Ran ran = run(ARMCONTRACT + " " + arguments);
    EXPECT_EQ(2, ran.status) << arguments;
    EXPECT_EQ(0U, ran.out.find("armcontract: ")) << ran.out;
    EXPECT_EQ(1, std::count(ran.out.begin(), ran.out.end(), '\n')) << ran.out;
  }
}

TEST(Armcontract, HelpIsPrinted) {
  const Ran ran = run(ARMCONTRACT + " --help");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ(0U, ran.out.find("usage: armcontract"));
}

}  // namespace
