// The program armstat beside real engines and beside objects that are not as they should be.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "RunningCommand.h"
#include "arm.h"
#include "ipcobjects.h"
#include "process.h"
#include "programs.h"

namespace {

using armtest::Attached;
using armtest::builtProgram;
using armtest::controlPath;
using armtest::EngineProcess;
using armtest::forkChild;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::waitUntil;
using nlohmann::json;

// Offsets in the request queue's segment.
constexpr size_t COUNT = 0;
constexpr size_t REQUEST_STATE = 8;
constexpr size_t VERSION = 20;
constexpr size_t READY = 24;
// Offsets in the reply queue's segment.
constexpr size_t USED_ITEMS = 0;
constexpr size_t FREE_LIST = 4;
constexpr size_t HEADS = 12;

const std::string REQUESTS = controlPath("ae.kelp_mem");
const std::string REPLIES = controlPath("ea.kelp");

Ran armstat(const std::string& arguments = "") {
  return runShell(builtProgram("armstat") + " " + arguments);
}

json picture(const std::string& arguments = "") {
  return json::parse(armstat("--json " + arguments).out);
}

bool hasFinding(const std::string& level, const std::string& piece,
                const std::string& arguments = "") {
  const json diagnosis = json::parse(armstat("--json doctor " + arguments).out);
  for (const json& one : diagnosis["findings"]) {
    const bool fits =
        one["level"] == level && one["text"].get<std::string>().find(piece) != std::string::npos;
    if (fits) return level == "good" || !one["advice"].get<std::string>().empty();
  }
  ADD_FAILURE() << "no " << level << " '" << piece << "' in\n" << diagnosis.dump(1);
  return false;
}

int32_t openTransaction() {
  const int32_t application = arm_init("shop", "*", 0, nullptr, 0);
  return arm_start(arm_getid(application, "order", nullptr, 0, nullptr, 0), 0, nullptr, 0);
}

// ---- looking ------------------------------------------------------------------------------------

TEST(Armstat, WithoutAnEngineItSaysSo) {
  const Ran ran = armstat();
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(0U, ran.out.find("engine    none (without a prefix)\n")) << ran.out;
  EXPECT_EQ(7U, linesWith(ran.out, "No such file or directory"));
  EXPECT_EQ("none", picture()["engine"]["state"]);
  EXPECT_TRUE(armtest::nameFiles().empty());
}

TEST(Armstat, ShowsWhatTheEngineHasMade) {
  EngineProcess engine({"--requests", "7", "--requesters", "5"});
  const json seen = picture();
  EXPECT_EQ(0, armstat().status);
  EXPECT_EQ(nullptr, seen["prefix"]);
  EXPECT_EQ((json{{"state", "serving"}, {"process", engine.process()}, {"name", "armengine"}}),
            seen["engine"]);
  const json& requests = seen["request_queue"];
  EXPECT_EQ(REQUESTS, requests["segment"]["path"]);
  EXPECT_EQ(armtest::segmentAt(REQUESTS), requests["segment"]["id"]);
  EXPECT_EQ(ftok(REQUESTS.c_str(), 2), requests["segment"]["key"]);
  EXPECT_EQ(28 + 7 * 4116, requests["segment"]["size"]);
  EXPECT_EQ(0666, requests["segment"]["mode"]);
  EXPECT_EQ(engine.process(), requests["segment"]["creator"]);
  EXPECT_EQ(armtest::setAt(REQUESTS, 1), requests["lock_set"]["id"]);
  EXPECT_EQ(2, requests["lock_set"]["creator"]);
  EXPECT_EQ(3, requests["empty_semaphore"]["semaphores"]);
  EXPECT_EQ(7, requests["capacity"]);
  EXPECT_EQ(0, requests["depth"]);
  EXPECT_EQ(50300, requests["version"]);
  EXPECT_EQ("steady", requests["copy"]);
  const json& replies = seen["reply_queue"];
  EXPECT_EQ(5, replies["capacity"]);
  EXPECT_EQ(5, replies["free_items"]);
  EXPECT_EQ(7, replies["wake_set"]["semaphores"]);
  EXPECT_EQ(json::array(), replies["requesters"]);
  EXPECT_EQ(json::array(), seen["oddities"]);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, PrefixChoosesTheEngine) {
  EngineProcess blue({"--prefix", "blue"});
  EXPECT_EQ("none", picture()["engine"]["state"]);
  EXPECT_EQ("serving", picture("--prefix blue")["engine"]["state"]);
  EXPECT_EQ("blue", picture("--prefix blue")["prefix"]);
  EXPECT_EQ(0, runShell("ARM_AGENT_PREFIX=blue " + builtProgram("armstat")).status);
  EXPECT_EQ(0,
            runShell("ARM_AGENT_PREFIX=red " + builtProgram("armstat") + " --prefix blue").status);
  EXPECT_EQ(REPLIES + ".blue", picture("--prefix blue")["reply_queue"]["segment"]["path"]);
  EXPECT_EQ(REPLIES + ".", picture("--prefix ''")["reply_queue"]["segment"]["path"]);
  EXPECT_EQ(0, blue.end(SIGTERM));
}

TEST(Armstat, RequestersAreNamedWithTheirProcess) {
  EngineProcess engine;
  const int32_t handle = openTransaction();
  ASSERT_GT(handle, 0);
  const json requesters = picture()["reply_queue"]["requesters"];
  ASSERT_EQ(1U, requesters.size());
  EXPECT_EQ(getpid(), requesters[0]["process"]);
  EXPECT_EQ("armstat_program", requesters[0]["process_name"]);
  EXPECT_EQ("idle", requesters[0]["status"]);
  EXPECT_EQ(true, requesters[0]["process_lives"]);
  EXPECT_EQ(gettid(), requesters[0]["thread"]);
  EXPECT_EQ(true, requesters[0]["thread_lives"]);
  EXPECT_EQ(0, requesters[0]["pending_replies"]);
  EXPECT_EQ(1U, linesWith(armstat().out, std::to_string(getpid()) + " armstat_program  yes"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, ThreadThatHasEndedIsTold) {
  EngineProcess engine;
  std::thread([] { (void)openTransaction(); }).join();
  const json requesters = picture()["reply_queue"]["requesters"];
  ASSERT_EQ(1U, requesters.size());
  EXPECT_EQ(true, requesters[0]["process_lives"]);
  EXPECT_EQ(false, requesters[0]["thread_lives"]);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, StoppedEngineShowsWaitersAndDepth) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  std::vector<pid_t> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(forkChild([] { return openTransaction() > 0 ? 0 : 1; }));
  }
  EXPECT_TRUE(waitUntil([] {
    const json seen = picture();
    unsigned waiting = 0;
    for (const json& one : seen["reply_queue"]["requesters"]) {
      if (one["status"] == "waiting" && one["waiters"] == 1) ++waiting;
    }
    return waiting == 3 && seen["request_queue"]["depth"] == 3;
  }));
  kill(clients[0], SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(clients[0]));
  unsigned dead = 0;
  const json requesters = picture()["reply_queue"]["requesters"];
  for (const json& one : requesters) {
    if (one["process_lives"] == false) ++dead;
  }
  EXPECT_EQ(1U, dead);
  EXPECT_TRUE(hasFinding("problem", "is stopped: every call waits"));
  EXPECT_TRUE(hasFinding("note", "1 head record of processes that have ended"));
  engine.signal(SIGCONT);
  EXPECT_EQ(0, armtest::exitCodeOf(clients[1]));
  EXPECT_EQ(0, armtest::exitCodeOf(clients[2]));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, DeadEngineIsTold) {
  {
    EngineProcess engine;
    EXPECT_EQ(128 + SIGKILL, engine.end(SIGKILL));
  }
  const json seen = picture();
  EXPECT_EQ("dead", seen["engine"]["state"]);
  EXPECT_EQ(1, seen["request_queue"]["lock_set"]["creator"]);
  EXPECT_EQ(1, armstat().status);
  EXPECT_TRUE(hasFinding("problem", "has died and left its objects"));
  EXPECT_EQ(0, armstat("clean --yes").status);
}

TEST(Armstat, ChangesNothing) {
  EngineProcess engine({"--requests", "4", "--requesters", "4"});
  ASSERT_GT(openTransaction(), 0);
  engine.signal(SIGSTOP);
  Attached requests(REQUESTS);
  Attached replies(REPLIES);
  requests.write<uint32_t>(VERSION, 7);
  const auto image = [&] {
    std::string bytes(static_cast<const char*>(requests.address()), 28 + 4 * 4116);
    bytes.append(static_cast<const char*>(replies.address()), 12 + 4 * 548);
    for (const auto& [path, project, size] :
         {std::tuple{REQUESTS, 1, 2}, std::tuple{controlPath("ae.kelp_emp"), 1, 3},
          std::tuple{controlPath("ae.kelp_ovr"), 1, 3}, std::tuple{REPLIES, 1, 2},
          std::tuple{REPLIES, 3, 6}}) {
      for (int i = 0; i < size; ++i) {
        const int set = armtest::setAt(path, project);
        bytes += ' ' + std::to_string(armtest::semaphoreValue(set, i)) + '/' +
                 std::to_string(semctl(set, i, GETPID));
      }
    }
    return bytes;
  };
  const std::string before = image();
  for (const char* arguments : {"", "--json", "doctor", "--json doctor", "clean", "clean --yes"}) {
    (void)armstat(arguments);
    EXPECT_TRUE(before == image()) << arguments;
  }
  EXPECT_EQ(7, picture()["request_queue"]["version"]);
  requests.write<uint32_t>(VERSION, 50300);
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, DamagedQueuesAreShownAsTheyAre) {
  EngineProcess engine({"--requests", "4", "--requesters", "4"});
  ASSERT_GT(openTransaction(), 0);
  engine.signal(SIGSTOP);
  Attached replies(REPLIES);
  const auto free_list = replies.read<uint32_t>(FREE_LIST);
  constexpr uint32_t ITEMS = 12 + 4 * 16;
  const auto with = [&](uint32_t first) {
    replies.write<uint32_t>(HEADS + 12, first);
    const json requester = picture()["reply_queue"]["requesters"][0];
    replies.write<uint32_t>(HEADS + 12, 0);
    return std::pair(requester["pending_replies"].get<int>(), requester["list_sound"].get<bool>());
  };
  const uint32_t link = replies.read<uint32_t>(ITEMS + 528);
  replies.write<uint32_t>(ITEMS + 528, ITEMS);  // goes round
  EXPECT_EQ(std::pair(4, false), with(ITEMS));
  replies.write<uint32_t>(ITEMS + 528, 0);
  EXPECT_EQ(std::pair(1, true), with(ITEMS));
  EXPECT_EQ(std::pair(0, false), with(ITEMS + 1));
  EXPECT_EQ(std::pair(0, false), with(ITEMS + 4 * 532));
  EXPECT_EQ(std::pair(0, false), with(12));
  EXPECT_EQ(std::pair(0, false), with(0xFFFFFFFF));
  replies.write<uint32_t>(ITEMS + 528, link);
  replies.write<uint32_t>(FREE_LIST, 13);
  replies.write<uint16_t>(USED_ITEMS, 3);
  const std::string text = armstat().out;
  EXPECT_EQ(1U, linesWith(text, "odd       the list of free items is damaged")) << text;
  EXPECT_EQ(1U, linesWith(text, "odd       the reply queue counts 3 replies, its lists hold 0"));
  EXPECT_TRUE(hasFinding("warning", "the list of free items is damaged"));
  replies.write<uint16_t>(USED_ITEMS, 0);
  replies.write<uint32_t>(FREE_LIST, free_list);
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, RandomContentsDoNoHarm) {
  EngineProcess engine({"--requests", "3", "--requesters", "20"});
  engine.signal(SIGSTOP);
  Attached requests(REQUESTS);
  Attached replies(REPLIES);
  std::mt19937 random(1);
  for (int round = 0; round < 6; ++round) {
    for (size_t at = 0; at < 28; at += 4) {
      requests.write<uint32_t>(at, static_cast<uint32_t>(random()));
    }
    // Small numbers are offsets more often.
    for (size_t at = 0; at < 12 + 20 * 548; at += 4) {
      const auto word = static_cast<uint32_t>(random());
      replies.write<uint32_t>(at, round % 2 == 0 ? word : word % 12000 / 4 * 4);
    }
    for (const char* arguments : {"", "--json", "doctor", "--consistent"}) {
      const Ran ran = armstat(arguments);
      EXPECT_EQ(1, ran.status) << arguments << ran.err;
      EXPECT_EQ("", ran.err);
    }
  }
  EXPECT_EQ(128 + SIGKILL, engine.end(SIGKILL));
  EXPECT_EQ(0, armstat("clean --yes").status);
}

/// Holds a lock until it is killed.
pid_t holdLock(const std::string& path) {
  const int set = armtest::setAt(path, 1);
  const pid_t holder = forkChild([set] {
    sembuf take = {0, 1, SEM_UNDO};
    if (semop(set, &take, 1) != 0) return 1;
    for (;;) pause();
  });
  EXPECT_TRUE(waitUntil([set] { return armtest::semaphoreValue(set, 0) == 1; }));
  return holder;
}

TEST(Armstat, LockThatIsNotGivenUpHindersNothingAndIsNamed) {
  EngineProcess engine;
  const pid_t holder = holdLock(REPLIES);
  EXPECT_EQ("steady", picture()["reply_queue"]["copy"]);
  EXPECT_EQ("steady", picture("--consistent")["reply_queue"]["copy"]);
  EXPECT_EQ(1U, linesWith(armstat().out, "held by " + std::to_string(holder) + " armstat_program"));
  EXPECT_TRUE(hasFinding("problem", "the reply lock is held by process " + std::to_string(holder)));
  kill(holder, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(holder));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, WatchRepeatsUntilItsReaderGoes) {
  EngineProcess engine;
  const Ran lines = runShell(builtProgram("armstat") + " --json --watch 0.01 | head -n 3");
  EXPECT_EQ(0, lines.status);
  EXPECT_EQ(3U, linesWith(lines.out, "{\"prefix\":null,"));
  const Ran text =
      runShell("timeout 10 " + builtProgram("armstat") + " --watch 0.01 | grep -m 3 ^engine");
  EXPECT_EQ(3U, linesWith(text.out, "engine    serving"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, ObjectsWithoutReadPermissionAreStatusThree) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  const int set = armtest::setAt(REQUESTS, 1);
  const int segment = armtest::segmentAt(REQUESTS);
  armtest::setSetMode(set, 0);
  armtest::setSegmentMode(segment, 0);
  const Ran ran = armstat();
  EXPECT_EQ(3, ran.status);
  EXPECT_EQ(2U, linesWith(ran.out, "Permission denied")) << ran.out;
  EXPECT_TRUE(hasFinding("problem", "the request lock (" + REQUESTS + ") may not be used"));
  EXPECT_EQ(1, armstat("clean --yes").status);
  armtest::setSegmentMode(segment, 0600);
  armtest::setSetMode(set, 0666);
  EXPECT_TRUE(hasFinding("warning", "is closed to other users' programs"));
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(Armstat, WrongUseIsOneSentenceAndStatusTwo) {
  for (const char* arguments :
       {"--what", "extra", "--watch x", "--watch 0", "--prefix a/b", "--prefix", "--watch 1 doctor",
        "--consistent clean", "--json clean", "doctor clean", "doctor --yes"}) {
    const Ran ran = armstat(arguments);
    EXPECT_EQ(2, ran.status) << arguments;
    EXPECT_EQ("", ran.out) << arguments;
    EXPECT_EQ(0U, ran.err.find("armstat: ")) << ran.err;
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  }
}

TEST(Armstat, HelpAndVersionArePrinted) {
  EXPECT_EQ(0U, armstat("--version").out.find("armstat 2."));
  const Ran help = armstat("--help");
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(1U, linesWith(help.out, "doctor  "));
  EXPECT_EQ(4, runShell(builtProgram("armstat") + " >/dev/full").status);
}

// ---- doctor -------------------------------------------------------------------------------------

TEST(ArmstatDoctor, HealthyEngineGetsNoProblem) {
  EngineProcess engine;
  ASSERT_GT(openTransaction(), 0);
  const Ran ran = armstat("doctor");
  EXPECT_EQ(0, ran.status) << ran.out;
  EXPECT_EQ(0U, linesWith(ran.out, "PROBLEM")) << ran.out;
  EXPECT_EQ(0U, linesWith(ran.out, "warning")) << ran.out;
  EXPECT_TRUE(hasFinding("good", "(process " + std::to_string(engine.process()) + ") serves"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, MissingEngineIsAProblemWithAdvice) {
  const Ran ran = armstat("doctor");
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(1U, linesWith(ran.out, "PROBLEM  no engine has made name files without a prefix"));
  EXPECT_EQ(1U, linesWith(ran.out, "-> start it: armengine"));
}

TEST(ArmstatDoctor, DeletedNameFileIsNamed) {
  EngineProcess engine;
  const std::string file = controlPath("ae.kelp_ovr");
  ASSERT_EQ(0, rename(file.c_str(), "/var/kelp/kept"));
  EXPECT_TRUE(hasFinding("problem", "name files are missing: " + file));
  ASSERT_EQ(0, rename("/var/kelp/kept", file.c_str()));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, ClosedDirectoryIsAProblem) {
  EngineProcess engine;
  ASSERT_EQ(0, chmod("/var/kelp", 0700));
  EXPECT_TRUE(hasFinding("warning", "the directory /var/kelp is closed to other users"));
  ASSERT_EQ(0, chmod("/var/kelp", 0));
  EXPECT_TRUE(hasFinding("problem", "no engine has made name files"));
  EXPECT_EQ(3, armstat().status);
  ASSERT_EQ(0, chmod("/var/kelp", 0755));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, EngineOfAnotherPrefixIsPointedTo) {
  EngineProcess blue({"--prefix", "blue"});
  EXPECT_TRUE(hasFinding("warning", "another engine serves with the prefix 'blue'"));
  EXPECT_TRUE(
      hasFinding("warning", "another engine serves with the prefix 'blue'", "--prefix red"));
  EngineProcess plain;
  EXPECT_TRUE(hasFinding("good", "serves"));
  EXPECT_EQ(0, armstat("doctor").status);
  EXPECT_EQ(0, plain.end(SIGTERM));
  EXPECT_EQ(0, blue.end(SIGTERM));
}

TEST(ArmstatDoctor, EmptyPrefixIsNoted) {
  EXPECT_TRUE(hasFinding("note", "ARM_AGENT_PREFIX is set but empty", "--prefix ''"));
}

TEST(ArmstatDoctor, NameFilesWithOneKeyAreFound) {
  EngineProcess engine;
  const std::string twin = controlPath("ae.kelp_mem.blue");
  // One file under two names; two files whose numbers end in the same 16 bits do the same.
  ASSERT_EQ(0, link(REPLIES.c_str(), twin.c_str()));
  EXPECT_EQ(ftok(REPLIES.c_str(), 2), ftok(twin.c_str(), 2));
  EXPECT_TRUE(hasFinding("problem", twin + " and " + REPLIES + " give the same keys"));
  ASSERT_EQ(0, unlink(twin.c_str()));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, SetOfAnotherProgramUnderOurKeyIsFound) {
  std::ofstream(controlPath("ae.kelp_emp")).close();
  const int set = semget(ftok(controlPath("ae.kelp_emp").c_str(), 1), 1, IPC_CREAT | 0600);
  ASSERT_GE(set, 0);
  EXPECT_TRUE(hasFinding("problem", "belongs to a set of another program, with 1 semaphore"));
  EXPECT_EQ(0, armstat("clean --yes").status);
  EXPECT_EQ(0, semctl(set, 0, GETVAL)) << "another program's set was removed";
  EXPECT_EQ(0, semctl(set, 0, IPC_RMID));
}

TEST(ArmstatDoctor, WordsOfTheQueueAreChecked) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  Attached requests(REQUESTS);
  const auto with = [&](size_t offset, uint32_t value, const char* level, const char* piece) {
    const auto before = requests.read<uint32_t>(offset);
    requests.write<uint32_t>(offset, value);
    EXPECT_TRUE(hasFinding(level, piece));
    requests.write<uint32_t>(offset, before);
  };
  with(VERSION, 50299, "warning", "the version word is 50299, not 50300");
  with(READY, 0, "problem", "has not finished starting");
  with(REQUEST_STATE, 1, "problem", "has stopped its queues");
  with(COUNT, 1024, "warning", "the request queue is full");
  engine.signal(SIGCONT);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, CrowdedReplyQueueIsAWarning) {
  EngineProcess engine({"--requesters", "1"});
  engine.signal(SIGSTOP);
  const pid_t client = forkChild([] { return openTransaction() > 0 ? 0 : 1; });
  EXPECT_TRUE(waitUntil([] { return picture()["reply_queue"]["heads_in_use"] == 1; }));
  EXPECT_TRUE(hasFinding("warning", "all 1 head records are in use"));
  engine.signal(SIGCONT);
  EXPECT_EQ(0, armtest::exitCodeOf(client));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, RemovedObjectIsFound) {
  EngineProcess engine;
  ASSERT_EQ(0, semctl(armtest::setAt(controlPath("ae.kelp_ovr"), 1), 0, IPC_RMID));
  EXPECT_TRUE(hasFinding("problem",
                         "the request room (_ovr) (" + controlPath("ae.kelp_ovr") + ") is gone"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

/// A program that has loaded the library and waits, started by a command that changes its world.
class Elsewhere : public armtest::RunningCommand {
 public:
  explicit Elsewhere(const std::string& world)
      : RunningCommand("armrun",
                       {"--app", "a", "--transaction", "t", "--wait", "0", "--", "sh", "-c",
                        world + builtProgram("armrun") +
                            " --app there --transaction t --wait 0 -- "
                            "sh -c 'echo ready; exec sleep 1000'"}) {
    EXPECT_TRUE(says("ready\n")) << output();
  }
};

TEST(ArmstatDoctor, ProgramsWithAnotherPrefixAreNoted) {
  EngineProcess engine;
  {
    const Elsewhere program("ARM_AGENT_PREFIX=blue ");
    EXPECT_TRUE(hasFinding("note", "(armrun) uses the prefix 'blue'"));
    EXPECT_EQ(0, armstat("doctor").status);
  }
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatDoctor, ProgramsInAnotherIpcNamespaceAreFound) {
  EngineProcess engine;
  ASSERT_TRUE(waitUntil([] { return access("/tmp/beside", F_OK) == 0; }));
  std::ofstream("/tmp/beside") << builtProgram("armrun")
                               << " --app there --transaction t --wait 0 -- "
                                  "sh -c 'echo ready >/tmp/ready; exec sleep 1000'\n";
  ASSERT_TRUE(waitUntil([] { return access("/tmp/ready", F_OK) == 0; }));
  EXPECT_TRUE(hasFinding("problem", "(armrun) lives in another IPC namespace"));
  EXPECT_EQ(0, engine.end(SIGTERM));
}

// ---- clean --------------------------------------------------------------------------------------

TEST(ArmstatClean, LivingEngineIsLeftAlone) {
  EngineProcess engine;
  const std::vector<std::string> files = armtest::nameFiles();
  const unsigned objects = armtest::ipcObjects();
  for (const char* how : {"clean --yes", "clean --dry-run"}) {
    const Ran ran = armstat(how);
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("armstat: an engine without a prefix lives (process " +
                  std::to_string(engine.process()) + "): stop it first\n",
              ran.err);
  }
  EXPECT_EQ(files, armtest::nameFiles());
  EXPECT_EQ(objects, armtest::ipcObjects());
  EXPECT_GT(openTransaction(), 0);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatClean, LivingEngineIsLeftAloneEvenWithoutItsNameFileLock) {
  EngineProcess engine;
  // A new file in place of the one that the engine holds.
  ASSERT_EQ(0, runShell("cp " + REQUESTS + " /var/kelp/new").status);
  EXPECT_EQ(1, armstat("clean --yes").status);
  ASSERT_EQ(0, unlink("/var/kelp/new"));
  EXPECT_GT(openTransaction(), 0);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST(ArmstatClean, ShowsFirstAndAsks) {
  {
    EngineProcess engine;
    EXPECT_EQ(128 + SIGKILL, engine.end(SIGKILL));
  }
  const unsigned objects = armtest::ipcObjects();
  EXPECT_EQ(7U, objects);
  const Ran dry = armstat("clean --dry-run");
  EXPECT_EQ(0, dry.status);
  EXPECT_EQ(2U, linesWith(dry.out, "  segment  id "));
  EXPECT_EQ(5U, linesWith(dry.out, "  set      id "));
  EXPECT_EQ(4U, linesWith(dry.out, "  file     /var/kelp/controls_"));
  const std::string program = builtProgram("armstat");
  for (const char* answer : {"echo n", "echo", "true", "echo nay"}) {
    const Ran ran = runShell(std::string(answer) + " | " + program + " clean");
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("armstat: nothing was removed\n", ran.err);
  }
  EXPECT_EQ(objects, armtest::ipcObjects());
  const Ran ran = runShell("echo y | " + program + " clean");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ(dry.out + "Remove them? [y/N] ", ran.out);
  EXPECT_EQ(0U, armtest::ipcObjects());
  EXPECT_TRUE(armtest::nameFiles().empty());
  EXPECT_EQ("There is nothing to remove without a prefix.\n", armstat("clean --yes").out);
}

TEST(ArmstatClean, OnlyTheChosenPrefixIsCleaned) {
  EngineProcess plain;
  {
    EngineProcess blue({"--prefix", "blue"});
    EXPECT_EQ(128 + SIGKILL, blue.end(SIGKILL));
  }
  EXPECT_EQ(0, armstat("clean --yes --prefix blue").status);
  EXPECT_EQ(7U, armtest::ipcObjects());
  EXPECT_EQ(4U, armtest::nameFiles().size());
  EXPECT_GT(openTransaction(), 0);
  EXPECT_EQ(0, plain.end(SIGTERM));
}

TEST(ArmstatClean, WaitersOfADeadEngineAreFreed) {
  EngineProcess engine;
  engine.signal(SIGSTOP);
  const pid_t client = forkChild([] { return openTransaction() < 0 ? 0 : 1; });
  EXPECT_TRUE(waitUntil([] { return picture()["reply_queue"]["heads_in_use"] == 1; }));
  EXPECT_EQ(128 + SIGKILL, engine.end(SIGKILL));
  EXPECT_EQ(0, armstat("clean --yes").status);
  EXPECT_EQ(0, armtest::exitCodeOf(client));
}

TEST(ArmstatClean, LoneNameFilesAreRemoved) {
  std::ofstream(controlPath("ae.kelp_emp")).close();
  EXPECT_EQ(0, armstat("clean --yes").status);
  EXPECT_TRUE(armtest::nameFiles().empty());
}

TEST(ArmstatClean, ObjectsThatAProcessIsMakingAreLeftAlone) {
  std::ofstream(REQUESTS).close();
  const int set = semget(ftok(REQUESTS.c_str(), 1), 2, IPC_CREAT | 0666);
  const pid_t maker = forkChild([set] {
    // The first step of an engine that starts.
    sembuf touch[] = {{1, 1, 0}, {1, -1, 0}};
    if (semop(set, touch, 1) != 0 || semop(set, touch + 1, 1) != 0) return 1;
    for (;;) pause();
  });
  EXPECT_TRUE(waitUntil([set, maker] { return semctl(set, 1, GETPID) == maker; }));
  const Ran ran = armstat("clean --yes");
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(0U, ran.err.find("armstat: process " + std::to_string(maker) + " is making"));
  kill(maker, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(maker));
  EXPECT_EQ(0, armstat("clean --yes").status);
  EXPECT_EQ(0U, armtest::ipcObjects());
}

}  // namespace
