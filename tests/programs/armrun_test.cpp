// The program armrun: what the command gets, and what the engine hears of it.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::wordsOfLine;

const std::string MEASURED = builtProgram("armrun") + " --app nightly --transaction job ";

Ran measured(const std::string& command) {
  return runShell(MEASURED + "-- " + command);
}

/// Count, good, failed and aborted of "nightly job".
std::vector<std::string> countsOf(const std::string& report) {
  const auto words = wordsOfLine(report, {"nightly", "job"});
  if (words.size() < 6) return {report};
  return {words.begin() + 2, words.begin() + 6};
}

using Counts = std::vector<std::string>;

TEST(Armrun, ExitStatusIsTheCommands) {
  for (const int status : {0, 1, 42, 124, 125, 255}) {
    const Ran ran = measured("sh -c 'exit " + std::to_string(status) + "'");
    EXPECT_EQ(status, ran.status);
    EXPECT_EQ("", ran.out + ran.err);
  }
}

TEST(Armrun, InputAndOutputsAreTheCommands) {
  const Ran ran = runShell("echo word | " + MEASURED + "sh -c 'cat; echo fault >&2'");
  EXPECT_EQ("word\n", ran.out);
  EXPECT_EQ("fault\n", ran.err);
}

TEST(Armrun, ArgumentsReachTheCommandAsTheyAre) {
  const Ran ran = measured("printf '%s|' 'a b' '' --app '*' -- \"$(printf 'x\\ny')\"");
  EXPECT_EQ("a b||--app|*|--|x\ny|", ran.out);
}

TEST(Armrun, CommandThatIsNotThereIs127AndOneThatCannotRunIs126) {
  const Ran missing = measured("/tmp/missing");
  EXPECT_EQ(127, missing.status);
  EXPECT_EQ("armrun: cannot run /tmp/missing: No such file or directory\n", missing.err);
  EXPECT_EQ(127, measured("no-such-command-anywhere").status);
  std::ofstream("/tmp/plain") << "text\n";
  EXPECT_EQ(126, measured("/tmp/plain").status);
  EXPECT_EQ(126, measured("/tmp").status);
}

TEST(Armrun, WithoutAnEngineItIsSilentUnlessAsked) {
  EXPECT_EQ("", measured("true").err);
  const Ran ran = runShell(MEASURED + "--verbose -- sh -c 'exit 7'");
  EXPECT_EQ(7, ran.status);
  EXPECT_EQ("armrun: not measured: no engine is running (arm_init gave -2)\n", ran.err);
}

TEST(Armrun, EnvironmentIsUntouchedButForTheCorrelator) {
  EngineProcess engine;
  const std::string directly = runShell("env | sort").out;
  const std::string through = measured("env | grep -v ^ARM_CORRELATOR= | sort").out;
  EXPECT_EQ(directly, through);
  // Where names have to be converted, the library changes its own process's environment.
  const std::string other = "LC_ALL=C.ISO-8859-1 ";
  EXPECT_EQ(runShell(other + "env | sort").out,
            runShell(other + MEASURED + "env | grep -v ^ARM_CORRELATOR= | sort").out);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armrun, FilesMasksAndDispositionsAreTheCallers) {
  EngineProcess engine;
  const std::string before =
      "exec 5</dev/null 7>/dev/null; env --ignore-signal=HUP,USR1,CHLD --block-signal=USR2 ";
  // The C library keeps some of the signals above 31 for itself.
  const std::string of_signals =
      "grep '^Sig[BI]' /proc/self/status | sed 's/\t.*\\(.......\\)$/ \\1/'";
  for (const char* look : {of_signals.c_str(), "ls /proc/self/fd", "sh -c 'ulimit -a; umask'"}) {
    const Ran directly = runShell(before + look);
    EXPECT_EQ(directly.out, runShell(before + MEASURED + look).out);
    EXPECT_EQ("", directly.err);
  }
  EXPECT_EQ("SigBlk: 0000800\nSigIgn: 0010201\n", runShell(before + MEASURED + of_signals).out);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armrun, ExitStatusIsHandedThroughWhereTheCallerIgnoresItsChildren) {
  EXPECT_EQ(9, runShell("env --ignore-signal=CHLD " + MEASURED + "sh -c 'exit 9'").status);
}

TEST(Armrun, OtherChildrenOfItsProcessAreLeftAlone) {
  // The shell becomes armrun and keeps its child, which ends first.
  const Ran ran = runShell("sh -c 'true & exec " + MEASURED + "sh -c \"sleep 0.05; exit 6\"'");
  EXPECT_EQ(6, ran.status);
}

TEST(Armrun, EndsBecomeCompletionStatuses) {
  EngineProcess engine;
  EXPECT_EQ(0, measured("true").status);
  EXPECT_EQ(0, measured("true").status);
  EXPECT_EQ(0, measured("true").status);
  EXPECT_EQ(1, measured("false").status);
  EXPECT_EQ(127, measured("/tmp/missing").status);
  EXPECT_EQ(128 + SIGTERM, measured("sh -c 'kill $$'").status);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ((Counts{"6", "3", "2", "1"}), countsOf(engine.report())) << engine.report();
}

TEST(Armrun, NamesReachTheEngineAsTheyAre) {
  EngineProcess engine;
  const std::string name = "Müller's \"größte\" Übertragung";
  std::ofstream("/tmp/name") << name;
  for (const char* locale : {"C", "C.UTF-8", "POSIX"}) {
    EXPECT_EQ(0, runShell(std::string("LC_ALL=") + locale + " " + builtProgram("armrun") +
                          " --app büro --transaction \"$(cat /tmp/name)\" true")
                     .status);
  }
  EXPECT_EQ(0, runShell(builtProgram("armrun") + " --app long --transaction " +
                        std::string(3619, 'x') + " true")
                   .status);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(engine.report(), "büro")) << engine.report();
  const auto words = wordsOfLine(engine.report(), {"büro", name});
  ASSERT_GE(words.size(), 8U) << engine.report();
  EXPECT_EQ((Counts{"3", "3", "0", "0"}), Counts(words.begin() + 4, words.begin() + 8));
  EXPECT_EQ(1U, linesWith(engine.report(), "long ")) << engine.report();
}

TEST(Armrun, CorrelatorInTheEnvironmentIsLowerCaseHexOf168Bytes) {
  EngineProcess engine;
  const Ran ran = measured("sh -c 'printf %s $ARM_CORRELATOR'");
  EXPECT_EQ(336U, ran.out.size());
  EXPECT_EQ(std::string::npos, ran.out.find_first_not_of("0123456789abcdef"));
  EXPECT_EQ("00a8", ran.out.substr(0, 4));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armrun, ShellScriptOfThreeLinesIsATraceOfThreeSpans) {
  EngineProcess engine;
  std::ofstream("/tmp/backup") << "#!/usr/bin/env -S armrun --app nightly --transaction backup sh\n"
                                  "armrun --app nightly --transaction dump -- true\n"
                                  "armrun --app nightly --transaction upload -- false\n";
  ASSERT_EQ(0, chmod("/tmp/backup", 0755));
  EXPECT_EQ(1, runShell("PATH=" ARM_BUILD_DIR "/bin:$PATH /tmp/backup").status);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const size_t tree = engine.report().find("nightly: backup  ");
  ASSERT_NE(std::string::npos, tree) << engine.report();
  const std::string trace = engine.report().substr(tree);
  EXPECT_EQ(3U, linesWith(trace, "")) << trace;
  EXPECT_EQ(1U, linesWith(trace, "failed") - linesWith(trace, "upload")) << trace;
  EXPECT_EQ(1U, linesWith(trace, "|- dump  ")) << trace;
  EXPECT_EQ(1U, linesWith(trace, "`- upload  ")) << trace;
}

/// The spans in a file of requests to a trace receiver.
nlohmann::json spansIn(const std::string& file) {
  nlohmann::json all = nlohmann::json::array();
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json request = nlohmann::json::parse(line);
    for (const auto& resource : request["resourceSpans"]) {
      for (const auto& scope : resource["scopeSpans"]) {
        for (const auto& span : scope["spans"]) all.push_back(span);
      }
    }
  }
  return all;
}

TEST(Armrun, SpansOfAScriptShareATraceAndNameTheirParent) {
  EngineProcess engine({"--otlp-file", "/tmp/spans"});
  const std::string inner = builtProgram("armrun") + " --app nightly --transaction ";
  EXPECT_EQ(
      0, runShell(inner + "backup sh -c '" + inner + "dump true; " + inner + "upload false; true'")
             .status);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const nlohmann::json spans = spansIn("/tmp/spans");
  ASSERT_EQ(3U, spans.size()) << spans.dump(1);
  std::map<std::string, nlohmann::json> by_name;
  for (const auto& span : spans) by_name[span["name"]] = span;
  const nlohmann::json root = by_name.at("backup");
  EXPECT_EQ("", root.value("parentSpanId", ""));
  for (const char* name : {"dump", "upload"}) {
    EXPECT_EQ(root["traceId"], by_name.at(name)["traceId"]);
    EXPECT_EQ(root["spanId"], by_name.at(name)["parentSpanId"]);
  }
  EXPECT_FALSE(by_name.at("dump").contains("status") &&
               by_name.at("dump")["status"].value("code", 0) != 0);
  EXPECT_EQ(2, by_name.at("upload")["status"]["code"]);
}

TEST(Armrun, DamagedCorrelatorsAreNoHindrance) {
  EngineProcess engine;
  const std::vector<std::string> damaged = {
      "", "''", "zz", std::string(336, 'e'), std::string(335, '0'), std::string(100000, 'a')};
  for (const std::string& text : damaged) {
    const Ran ran = runShell("ARM_CORRELATOR=" + text + " " + MEASURED + "true");
    EXPECT_EQ(0, ran.status);
    EXPECT_EQ("", ran.err);
  }
  EXPECT_EQ(0, engine.end(SIGTERM));
  // Some of them may say "ignore my children".
  EXPECT_LE(5, std::stoi(countsOf(engine.report()).front())) << engine.report();
}

TEST(Armrun, ChildrenOfAnIgnoredParentAreIgnoredToo) {
  EngineProcess engine;
  std::string parent(336, '0');
  parent[2 * 109 + 1] = '1';
  const Ran ran = runShell("ARM_CORRELATOR=" + parent + " " + MEASURED +
                           "--verbose sh -c 'printf %s $ARM_CORRELATOR'");
  EXPECT_EQ(parent, ran.out);
  EXPECT_EQ("armrun: not measured: its parent transaction is not measured either\n", ran.err);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ((Counts{"0", "0", "0", "0"}), countsOf(engine.report())) << engine.report();
}

TEST(Armrun, ParentIsHandedDownWhereNothingIsMeasured) {
  const Ran ran = runShell("ARM_CORRELATOR=abc " + MEASURED + "sh -c 'echo $ARM_CORRELATOR'");
  EXPECT_EQ("abc\n", ran.out);
}

TEST(Armrun, EngineThatDoesNotAnswerHoldsNothingUp) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  const Ran ran = runShell(MEASURED + "--wait 0.1 --verbose -- sh -c 'exit 5'");
  EXPECT_EQ(5, ran.status);
  EXPECT_EQ("armrun: not measured: the engine does not answer\n", ran.err);
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armrun, EngineThatStopsMeanwhileHoldsNothingUp) {
  EngineProcess engine;
  const std::string stop = "kill -STOP " + std::to_string(engine.process());
  EXPECT_EQ(5, runShell(MEASURED + "--wait 0.1 -- sh -c '" + stop + "; exit 5'").status);
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armrun, EngineThatDiesMeanwhileIsNoHindrance) {
  EngineProcess engine;
  const std::string kill = "kill -KILL " + std::to_string(engine.process());
  EXPECT_EQ(5, runShell(MEASURED + "-- sh -c '" + kill + "; exit 5'").status);
  EXPECT_EQ(128 + SIGKILL, engine.end(0));
  EngineProcess next;
  EXPECT_EQ(0, next.end(SIGTERM));
}

TEST(Armrun, WrongUseIsOneSentenceAndStatus125) {
  for (const char* arguments :
       {"", "true", "--app x true", "--what", "--app", "--app x --transaction"}) {
    const Ran ran = runShell(builtProgram("armrun") + " " + arguments);
    EXPECT_EQ(125, ran.status) << arguments;
    EXPECT_EQ("", ran.out) << arguments;
    EXPECT_EQ(0U, ran.err.find("armrun: ")) << ran.err;
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  }
}

TEST(Armrun, HelpAndVersionArePrinted) {
  const Ran help = runShell(builtProgram("armrun") + " --help");
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0U, help.out.find("usage: armrun --app NAME"));
  const Ran version = runShell(builtProgram("armrun") + " --version");
  EXPECT_EQ(0, version.status);
  EXPECT_EQ(0U, version.out.find("armrun 2."));
  EXPECT_EQ(125, runShell(builtProgram("armrun") + " --help >/dev/full").status);
}

}  // namespace
