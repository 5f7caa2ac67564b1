// --events and replay, with real clients.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "armext.h"
#include "files.h"
#include "process.h"
#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::contentOf;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::waitUntil;
using nlohmann::json;

constexpr const char* EVENTS = "/tmp/events";

std::vector<json> eventsOf(const std::string& path) {
  std::vector<json> events;
  std::istringstream lines(contentOf(path));
  for (std::string line; std::getline(lines, line);) events.push_back(json::parse(line));
  return events;
}

arm_user_data1_t blockWith(uint8_t flags) {
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = flags;
  return block;
}

/// Every kind of request, good ones and refused ones, with children and metrics.
void makeEveryRequest() {
  const int32_t shop = arm_init("shop \"1\"\n\xC3\xA4", "*", 0, nullptr, 0);
  const int32_t raw = w_ArmInit(0, const_cast<char*>("raw \xFF"), nullptr, 0, nullptr, 0);
  arm_user_data101_t descriptions = {};
  descriptions.format = ARM_DATA_FORMAT_101;
  descriptions.flags[1] = ARM_Metric1_f;
  descriptions.metric[0].type = ARM_Counter32;
  std::strcpy(descriptions.metric[0].name, "rows");
  const int32_t order = arm_getid(shop, "order", "detail", 0, &descriptions, sizeof descriptions);
  const int32_t query = w_ArmGetID(0, raw, const_cast<char*>("query \xFE"), nullptr, 0, nullptr, 0);
  const int32_t other = w_ArmGetID(0, raw, const_cast<char*>("query \xFD"), nullptr, 0, nullptr, 0);
  arm_user_data1_t parent = blockWith(ARM_CorrReq_f);
  parent.flags[1] = ARM_Metric1_f;
  const int32_t top = arm_start(order, 0, &parent, sizeof parent);
  for (int i = 0; i < 12; ++i) {
    arm_user_data1_t child = blockWith(ARM_CorrPar_f | ARM_CorrReq_f);
    child.correlator = parent.correlator;
    const int32_t handle = arm_start(i % 2 == 0 ? query : other, 0, &child, sizeof child);
    arm_user_data2_t text = {ARM_DATA_FORMAT_2, "half way"};
    arm_update(handle, 7, &text, sizeof text);
    arm_associateMetricData(handle, "\x01\x02", 2);
    arm_stop(handle, i % 4, 0, nullptr, 0);
  }
  parent.metric[0].value32 = 17;
  arm_stop(top, ARM_GOOD, 0, &parent, sizeof parent);
  arm_stop(top, ARM_GOOD, 0, nullptr, 0);
  arm_transactionReport(order, 0, nullptr, 0, 1, ARM_FAILED, 250, -3);
  arm_transactionInstanceReport(order, 0, nullptr, 0, 0, ARM_GOOD, 20, 0);
  arm_completeTransaction(order, 0, 0);
  arm_completeTransactionInstance(arm_start(order, 0, nullptr, 0), ARM_ABORT, 0);
  arm_start(order, 0, nullptr, 0);
  arm_start(123456789, 0, nullptr, 0);
  arm_end(raw, 0, nullptr, 0);
}

TEST(Events, ReplayGivesTheTableOfTheEngine) {
  EngineProcess engine({"--report", "--events", EVENTS});
  makeEveryRequest();
  EXPECT_EQ(0, engine.end(SIGTERM));
  const Ran replay = runShell(builtProgram("armengine") + " replay " + EVENTS);
  EXPECT_EQ(0, replay.status);
  EXPECT_EQ("", replay.err);
  EXPECT_EQ(engine.report(), replay.out);
  EXPECT_EQ(1U, linesWith(replay.out, "`- and 4 more")) << replay.out;
  EXPECT_EQ(1U, linesWith(replay.out, "never stopped: 1"));
}

TEST(Events, EveryRequestIsOneNumberedLine) {
  EngineProcess engine({"--events", EVENTS});
  makeEveryRequest();
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto events = eventsOf(EVENTS);
  EXPECT_EQ("engine", events.at(0).at("event"));
  std::set<std::string> kinds;
  for (size_t i = 1; i < events.size(); ++i) {
    EXPECT_EQ(i, events[i].at("n"));
    EXPECT_EQ(getpid(), events[i].at("process"));
    kinds.insert(events[i].at("event").get<std::string>());
  }
  EXPECT_EQ((std::set<std::string>{"complete", "end", "getid", "init", "instance_complete",
                                   "instance_report", "metric_data", "report", "start", "stop",
                                   "update"}),
            kinds);
}

TEST(Events, ChildNamesItsParentsSpan) {
  EngineProcess engine({"--events", EVENTS});
  makeEveryRequest();
  EXPECT_EQ(0, engine.end(SIGTERM));
  json parent;
  int children = 0;
  for (const json& event : eventsOf(EVENTS)) {
    if (event.at("event") != "start" || event.at("result") < 0) continue;
    if (parent.is_null()) {
      parent = event;
    } else if (event.contains("parent")) {
      ++children;
      EXPECT_EQ(parent.at("trace"), event.at("trace"));
      EXPECT_EQ(parent.at("span"), event.at("parent"));
    }
  }
  EXPECT_EQ(12, children);
}

TEST(Events, HangUpOpensTheFileAgainAndReplayTakesBothParts) {
  EngineProcess engine({"--report", "--events", EVENTS});
  makeEveryRequest();
  EXPECT_TRUE(waitUntil([] { return linesWith(contentOf(EVENTS), "\"end\"") == 1; }));
  ASSERT_EQ(0, rename(EVENTS, "/tmp/events.1"));
  engine.signal(SIGHUP);
  // Requests that come before the signal has been seen go to the old file.
  EXPECT_TRUE(waitUntil([] { return access(EVENTS, F_OK) == 0; }));
  makeEveryRequest();
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(contentOf(EVENTS), "\"event\":\"engine\""));
  const Ran replay =
      runShell("cat /tmp/events.1 /tmp/events | " + builtProgram("armengine") + " replay -");
  EXPECT_EQ("", replay.err);
  EXPECT_EQ(engine.report(), replay.out);
}

TEST(Events, SecondEngineOnOneFileStartsAnew) {
  for (int i = 0; i < 2; ++i) {
    EngineProcess engine({"--report", "--events", EVENTS});
    makeEveryRequest();
    EXPECT_EQ(0, engine.end(SIGTERM));
    EXPECT_EQ(engine.report(), runShell(builtProgram("armengine") + " replay " + EVENTS).out);
  }
}

TEST(Events, StandardOutputHoldsNothingElse) {
  const std::string out = "/tmp/engine.out";
  const Ran ran = runShell(builtProgram("armengine") + " --report --events - >" + out +
                           " 2>/tmp/engine.err & engine=$!; " +
                           "until grep -q serving /tmp/engine.err; do sleep 0.01; done; " +
                           "kill $engine; wait $engine");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ("", contentOf(out));
  EXPECT_EQ(1U, linesWith(contentOf("/tmp/engine.err"), "no transaction class"));
}

TEST(Events, ReplayTellsWhatIsMissingOrDamaged) {
  {
    EngineProcess engine({"--events", EVENTS});
    makeEveryRequest();
    EXPECT_EQ(0, engine.end(SIGTERM));
  }
  std::string text = contentOf(EVENTS);
  const size_t stop = text.find("{\"n\":8,");
  ASSERT_NE(std::string::npos, stop);
  text.erase(stop, text.find('\n', stop) + 1 - stop);
  std::ofstream(EVENTS) << text << "{\"n\":1000,\"event\":\"st";
  const Ran replay = runShell(builtProgram("armengine") + " replay " + EVENTS);
  EXPECT_EQ(0, replay.status);
  EXPECT_EQ(1U, linesWith(replay.err, "armengine: 1 events were dropped")) << replay.err;
  EXPECT_EQ(1U, linesWith(replay.err, "armengine: 1 lines are no events")) << replay.err;
}

TEST(Events, ReplayOfWhatIsNoFileIsRefusedInOneSentence) {
  std::ofstream("/tmp/empty") << "";
  std::ofstream("/tmp/other") << "{}\nx\n";
  for (const char* file : {"/tmp/nothing", "/tmp/empty", "/tmp/other", "/tmp"}) {
    const Ran ran = runShell(builtProgram("armengine") + " replay " + file);
    EXPECT_EQ(1, ran.status) << file;
    EXPECT_EQ("", ran.out) << file;
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  }
}

TEST(Events, FileThatCannotBeOpenedIsRefusedBeforeTheQueuesAreMade) {
  for (const char* option : {"--events", "--otlp-file"}) {
    const Ran ran = runShell(builtProgram("armengine") + " " + option + " /nowhere/file");
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("", ran.out);
    EXPECT_EQ(1U, linesWith(ran.err, "/nowhere/file")) << ran.err;
  }
}

TEST(Events, ManagerThatAskedIsTold) {
  const char* listener =
      "import os,socket,subprocess,sys\n"
      "s=socket.socket(socket.AF_UNIX,socket.SOCK_DGRAM)\n"
      "s.bind('/tmp/notify'); s.settimeout(20)\n"
      "e=subprocess.Popen([sys.argv[1]],env=dict(os.environ,NOTIFY_SOCKET='/tmp/notify'))\n"
      "print(s.recv(99).decode()); e.terminate(); print(s.recv(99).decode()); e.wait()\n";
  std::ofstream("/tmp/listener.py") << listener;
  const Ran ran = runShell("/usr/bin/python3 /tmp/listener.py " + builtProgram("armengine"));
  EXPECT_EQ(1U, linesWith(ran.out, "READY=1")) << ran.out << ran.err;
  EXPECT_EQ(1U, linesWith(ran.out, "STOPPING=1"));
}

}  // namespace
