// The program armrun stands between a caller and a command: neither may notice.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "RunningCommand.h"
#include "process.h"
#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::RunningCommand;
using armtest::waitUntil;

std::vector<std::string> withNames(const std::vector<std::string>& command) {
  std::vector<std::string> arguments = {"--app", "nightly", "--transaction", "job", "--"};
  arguments.insert(arguments.end(), command.begin(), command.end());
  return arguments;
}

/// armrun with a shell script.
class Script : public RunningCommand {
 public:
  explicit Script(const std::string& script, Terminal terminal = Terminal::none)
      : RunningCommand("armrun", withNames({"sh", "-c", script}), terminal) {}
};

/// armrun with the program that tells the signals that it gets.
class Teller : public RunningCommand {
 public:
  explicit Teller(Terminal terminal = Terminal::none)
      : RunningCommand("armrun", withNames({builtProgram("signal_teller")}), terminal) {
    EXPECT_TRUE(says("ready\n"));
  }
  /// What it has told when it has ended as asked.
  std::string told() {
    signal(SIGUSR2);
    EXPECT_EQ(0, wait());
    return output().substr(6);
  }
};

std::string line(int signal, int value = 0) {
  return std::to_string(signal) + " " + std::to_string(value) + "\n";
}

TEST(ArmrunSignals, SignalThatEndsTheCommandEndsArmrun) {
  for (const int number : {SIGTERM, SIGINT, SIGKILL, SIGSEGV, SIGHUP, SIGRTMIN + 3}) {
    Script script("kill -" + std::to_string(number) + " $$");
    const int status = script.wait();
    EXPECT_TRUE(WIFSIGNALED(status)) << number;
    EXPECT_EQ(number, WTERMSIG(status));
  }
}

TEST(ArmrunSignals, SignalsThatItGetsReachTheCommandOnce) {
  Teller teller;
  std::string expected;
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGALRM, SIGTERM, SIGWINCH, SIGTSTP,
                           SIGPIPE, SIGSEGV, SIGRTMIN + 1}) {
    teller.signal(number);
    expected += line(number);
    EXPECT_TRUE(teller.says(line(number))) << number;
  }
  EXPECT_EQ(expected, teller.told());
}

TEST(ArmrunSignals, ValuesOfQueuedSignalsArrive) {
  Teller teller;
  std::string expected;
  for (int i = 1; i <= 20; ++i) {
    sigval value = {};
    value.sival_int = 100 + i;
    EXPECT_EQ(0, sigqueue(teller.process(), SIGRTMIN + 1, value));
    expected += line(SIGRTMIN + 1, 100 + i);
  }
  EXPECT_TRUE(teller.says(line(SIGRTMIN + 1, 120)));
  EXPECT_EQ(expected, teller.told());
}

TEST(ArmrunSignals, SignalThatTheCommandSendsToItsGroupReachesItOnce) {
  Script script(
      "n=0; trap 'n=$((n + 1))' USR1; kill -USR1 0; for i in 1 2 3 4 5; do true; done; "
      "sleep 0.1; exit $((10 + n))");
  const int status = script.wait();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(11, WEXITSTATUS(status));
}

TEST(ArmrunSignals, KeysOfTheTerminalReachTheCommandOnce) {
  Teller teller(RunningCommand::Terminal::its_own);
  teller.type("\x03");
  EXPECT_TRUE(teller.says(line(SIGINT)));
  teller.type("\x1C");
  EXPECT_TRUE(teller.says(line(SIGQUIT)));
  EXPECT_EQ(line(SIGINT) + line(SIGQUIT), teller.told());
}

TEST(ArmrunSignals, CtrlCEndsBothAsIfThereWereNoArmrun) {
  Script script("echo ready; exec sleep 1000", RunningCommand::Terminal::its_own);
  EXPECT_TRUE(script.says("ready\n"));
  script.type("\x03");
  const int status = script.wait();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGINT, WTERMSIG(status));
}

TEST(ArmrunSignals, CommandThatSurvivesCtrlCKeepsArmrun) {
  Script script("trap 'echo caught; exit 3' INT; echo ready; while :; do sleep 0.01; done",
                RunningCommand::Terminal::its_own);
  EXPECT_TRUE(script.says("ready\n"));
  script.type("\x03");
  const int status = script.wait();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
  EXPECT_EQ("ready\ncaught\n", script.output());
}

TEST(ArmrunSignals, HangUpOfItsTerminalReachesTheCommand) {
  // The kernel tells only the leader of the session, which armrun is here.
  Teller teller(RunningCommand::Terminal::its_own);
  teller.hangUp();
  EXPECT_TRUE(teller.says(line(SIGHUP)));
  EXPECT_EQ(line(SIGHUP), teller.told());
}

/// The state letter of a process in /proc.
char stateOf(pid_t process) {
  const std::string stat = armtest::runShell("cat /proc/" + std::to_string(process) + "/stat").out;
  const size_t name_end = stat.rfind(") ");
  return name_end == std::string::npos ? '?' : stat[name_end + 2];
}

TEST(ArmrunSignals, StoppedJobIsStoppedAndGoesOn) {
  for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU}) {
    Script script("kill -" + std::to_string(number) + " $$; echo on; exit 4");
    const int stopped = script.wait(WUNTRACED);
    ASSERT_TRUE(WIFSTOPPED(stopped)) << number;
    EXPECT_EQ(number, WSTOPSIG(stopped));
    EXPECT_EQ("", script.output());
    script.signalGroup(SIGCONT);
    const int status = script.wait();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(4, WEXITSTATUS(status));
    EXPECT_EQ("on\n", script.output());
  }
}

TEST(ArmrunSignals, StoppedJobIsContinuedThroughArmrunAlone) {
  Script script("kill -TSTP $$; exit 4");
  ASSERT_TRUE(WIFSTOPPED(script.wait(WUNTRACED)));
  script.signal(SIGCONT);
  EXPECT_EQ(4, WEXITSTATUS(script.wait()));
}

TEST(ArmrunSignals, JobMayBeStoppedManyTimes) {
  Script script("for i in 1 2 3 4 5; do kill -TSTP $$; done; exit 4");
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(WIFSTOPPED(script.wait(WUNTRACED))) << i;
    script.signalGroup(SIGCONT);
  }
  EXPECT_EQ(4, WEXITSTATUS(script.wait()));
}

TEST(ArmrunSignals, ContinuedCommandHearsOfItOnce) {
  Script script(
      "n=0; trap 'n=$((n + 1))' CONT; kill -TSTP $$; for i in 1 2 3; do sleep 0.05; done; "
      "exit $((10 + n))");
  ASSERT_TRUE(WIFSTOPPED(script.wait(WUNTRACED)));
  script.signalGroup(SIGCONT);
  EXPECT_EQ(11, WEXITSTATUS(script.wait()));
}

TEST(ArmrunSignals, CommandThatIsStoppedAloneIsContinuedAlone) {
  Script script("echo $$; while [ ! -e /tmp/go ]; do sleep 0.01; done; exit 4");
  EXPECT_TRUE(script.says("\n"));
  const pid_t command = std::stoi(script.output());
  ASSERT_EQ(0, kill(command, SIGSTOP));
  EXPECT_TRUE(waitUntil([&] { return stateOf(command) == 'T'; }));
  ASSERT_EQ(0, kill(command, SIGCONT));
  armtest::runShell("touch /tmp/go");
  EXPECT_EQ(4, WEXITSTATUS(script.wait()));
}

TEST(ArmrunSignals, KilledArmrunTakesTheCommandAlong) {
  Script script("echo $$; exec sleep 1000");
  EXPECT_TRUE(script.says("\n"));
  const pid_t command = std::stoi(script.output());
  script.signal(SIGKILL);
  EXPECT_EQ(SIGKILL, WTERMSIG(script.wait()));
  EXPECT_TRUE(waitUntil([&] { return stateOf(command) == '?' || stateOf(command) == 'Z'; }));
}

TEST(ArmrunSignals, CtrlCEndsTheWaitForAnEngineThatDoesNotAnswer) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  RunningCommand armrun("armrun", {"--app", "a", "--transaction", "t", "--wait", "3600", "true"});
  armrun.signal(SIGINT);
  const int status = armrun.wait();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGINT, WTERMSIG(status));
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

}  // namespace
