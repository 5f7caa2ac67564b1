// The ends of what the machine has: kernel limits, address space, descriptors, disk; name files,
// log directories, trace files and properties that are not what they should be.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unicode/ucnv.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "CallTest.h"
#include "counted.h"
#include "ipcobjects.h"
#include "soak_team.h"
#include "tracefile.h"

namespace armtest {
namespace {

constexpr const char* REQUEST_NAME = "/var/kelp/controls_ae.kelp";
constexpr const char* REPLY_NAME = "/var/kelp/controls_ea.kelp";
constexpr const char* LOG_DIRECTORY = "/var/orv/kestra/common/QDN/logs";
constexpr const char* PROPERTIES = "/etc/orv/kestra/common/cfg/log.properties";

const std::vector<std::string>& namePaths() {
  static const std::vector<std::string> ALL = {std::string(REQUEST_NAME) + "_mem",
                                               std::string(REQUEST_NAME) + "_emp",
                                               std::string(REQUEST_NAME) + "_ovr", REPLY_NAME};
  return ALL;
}

bool writeText(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0) return false;
  const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(file);
  return written;
}

off_t sizeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

/// How many posting calls do not return the answer of an engine without rules.
int wrongCalls() {
  int wrong = 0;
  for (const PostingCall& one : postingCalls()) wrong += one.call() == 100 + one.type ? 0 : 1;
  return wrong;
}

int callsOtherThan(int32_t expected) {
  int other = 0;
  for (const PostingCall& one : postingCalls()) other += one.call() == expected ? 0 : 1;
  return other;
}

/// Runs a body in a process of its own, which has not used the library yet; what the body fails is
/// the test's.
void inAProcess(const std::function<void()>& body) {
  EXPECT_EQ(0, exitCodeOf(forkChild([&] {
              body();
              return testing::Test::HasFailure() ? 1 : 0;
            })));
}

/// What a body writes to standard output.
std::string outputOf(const std::function<void()>& body) {
  const int file = memfd_create("output", MFD_CLOEXEC);
  fflush(nullptr);
  const int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100);
  dup2(file, STDOUT_FILENO);
  body();
  fflush(nullptr);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  char text[8192] = {};
  const ssize_t length = pread(file, text, sizeof text - 1, 0);
  close(file);
  return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
}

void traceInBasicFormat() {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
}

using Limits = Calls;

// ---- kernel.sem and kernel.shm* -----------------------------------------------------------------

constexpr const char* DEFAULT_SEM = "32000 1024000000 500 32000";

bool setLimit(const char* name, const std::string& value) {
  return writeText((std::string("/proc/sys/kernel/") + name).c_str(), value);
}

/// Makes the limits of this process's IPC namespace writable: root of the machine may write them in
/// any namespace, anybody in one of a user namespace in which he is root.
bool mayLimit() {
  if (setLimit("sem", DEFAULT_SEM)) return true;
  const std::string user = "0 " + std::to_string(geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(getegid()) + " 1";
  return unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0 && writeText("/proc/self/setgroups", "deny") &&
         writeText("/proc/self/uid_map", user) && writeText("/proc/self/gid_map", group) &&
         setLimit("sem", DEFAULT_SEM);
}

/// Runs a body with an engine of its own where limits can be set.
void withLimits(const std::function<void(ScriptedEngine&)>& body) {
  inAProcess([&] {
    ASSERT_TRUE(mayLimit()) << "the limits of this namespace cannot be set";
    ScriptedEngine engine;
    body(engine);
    EXPECT_TRUE(setLimit("sem", DEFAULT_SEM));
  });
}

TEST(KernelLimits, OfOneOperationPerSemopFailCallsUntilItIsRaised) {
  withLimits([](ScriptedEngine& engine) {
    ASSERT_TRUE(engine.start());
    EXPECT_EQ(0, wrongCalls());
    for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(setLimit("sem", "32000 1024000000 1 32000"));
      EXPECT_EQ(0, callsOtherThan(-9));
      ASSERT_TRUE(setLimit("sem", DEFAULT_SEM));
      EXPECT_EQ(0, wrongCalls());
    }
  });
  counted("one operation per semop", 3);
}

TEST(KernelLimits, OfSetsAndSegmentsThatAreUsedUpDoNotMatterToCalls) {
  withLimits([](ScriptedEngine& engine) {
    ASSERT_TRUE(engine.start());
    // The engine's five sets, with 3 + 3 + 2 + 2 + 66 semaphores, and its two segments.
    ASSERT_TRUE(setLimit("sem", "66 76 500 5"));
    ASSERT_TRUE(setLimit("shmmni", "2"));
    ASSERT_TRUE(setLimit("shmmax", "1"));
    ASSERT_TRUE(setLimit("shmall", "1"));
    EXPECT_EQ(-1, semget(IPC_PRIVATE, 1, 0600));
    EXPECT_EQ(-1, shmget(IPC_PRIVATE, 1, 0600));
    EXPECT_EQ(0, wrongCalls());
    inAProcess([] { EXPECT_EQ(0, wrongCalls()); });
  });
  counted("sets and segments used up", 1);
}

TEST(KernelLimits, ThatKeepAnEngineFromStartingLeaveMinus2) {
  withLimits([](ScriptedEngine&) {
    const struct {
      const char* name;
      const char* too_low;
      const char* enough;
    } limits[] = {{"sem", "32000 32000 500 3", DEFAULT_SEM},
                  {"shmmni", "0", "4096"},
                  {"shmmax", "100", "18446744073692774399"}};
    const std::string engine = engineBuildDir() + "/bin/armengine";
    for (const auto& limit : limits) {
      ASSERT_TRUE(setLimit(limit.name, limit.too_low));
      const pid_t process = forkChild([&engine] {
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        execl(engine.c_str(), engine.c_str(), nullptr);
        return 0;
      });
      EXPECT_NE(0, exitCodeOf(process)) << limit.name;
      EXPECT_EQ(0, callsOtherThan(-2)) << limit.name;
      ASSERT_TRUE(setLimit(limit.name, limit.enough)) << limit.name;
    }
  });
  counted("limits too low for an engine", 3);
}

TEST(KernelLimits, OfForcedRemovalTakeNoSegmentFromUnderACall) {
  withLimits([](ScriptedEngine& engine) {
    ASSERT_TRUE(setLimit("shm_rmid_forced", "1"));
    for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(engine.start());
      EXPECT_EQ(0, wrongCalls());
      engine.kill();
      EXPECT_EQ(0, callsOtherThan(-2));
    }
    ASSERT_TRUE(engine.start());
    EXPECT_EQ(0, wrongCalls());
  });
  counted("kernel.shm_rmid_forced", 3);
}

// ---- address space and descriptors --------------------------------------------------------------

// The sanitizers need an address space of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

rlim_t addressSpaceInUse() {
  std::ifstream statm("/proc/self/statm");
  rlim_t pages = 0;
  statm >> pages;
  return pages * 4096;
}

void limitAddressSpace(rlim_t bytes) {
  rlimit limit = {};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = bytes;
  ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
}

/// The stack must not have to grow while nothing can.
void touchStack() {
  volatile char pages[256 * 1024];
  for (size_t i = 0; i < sizeof pages; i += 4096) pages[i] = 1;
}

/// Memory that the allocator still has would hide the limit.
void useUpFreeMemory() {
  for (size_t size = 1024 * 1024; size >= 16; size /= 2) {
    while (malloc(size) != nullptr) {
    }
  }
}

/// Makes a call with more and more room until it succeeds. Nothing is reported meanwhile: that
/// needs memory.
struct RoomTest {
  unsigned failed = 0;
  unsigned unexpected = 0;
  bool succeeded = false;

  template <typename Call, typename Expected>
  void run(Call&& call, int32_t success, Expected&& is_expected_failure) {
    touchStack();
    const rlim_t used = addressSpaceInUse();
    limitAddressSpace(used);
    useUpFreeMemory();
    for (rlim_t more = 0; more < 8U << 20 && !succeeded; more += 4096) {
      limitAddressSpace(used + more);
      const int32_t result = call();
      succeeded = result == success;
      if (!succeeded) ++failed;
      if (!succeeded && !is_expected_failure(result)) ++unexpected;
    }
    limitAddressSpace(RLIM_INFINITY);
    EXPECT_TRUE(succeeded);
    EXPECT_EQ(0U, unexpected);
    EXPECT_LT(5U, failed);
    counted("calls failed for lack of address space", failed);
  }
};

TEST_F(Limits, OfTheAddressSpaceFailTheFirstCallUntilThereIsRoom) {
  EngineSetup setup;
  setup.requests = 256;
  ASSERT_TRUE(engine_.start(setup));
  inAProcess([] {
    RoomTest().run([] { return arm_start(5, 0, nullptr, 0); }, 103,
                   [](int32_t result) { return result == -2; });
    EXPECT_EQ(0, wrongCalls());
  });
}

/// ICU reads its table of code-set names once, and keeps a failure of that for good.
void readTableOfCodesets() {
  UErrorCode status = U_ZERO_ERROR;
  ASSERT_LT(0, ucnv_countAliases("ISO-2022-JP", &status));
}

TEST_F(Limits, OfTheAddressSpaceFailConversionsUntilThereIsRoomButNoMeasurement) {
  ASSERT_TRUE(engine_.start());
  inAProcess([] {
    readTableOfCodesets();
    ASSERT_EQ(103, arm_start(5, 0, nullptr, 0));
    unsigned measured = 0;
    RoomTest test;
    test.run(
        [&measured] {
          if (arm_stop(5, ARM_GOOD, 0, nullptr, 0) == 105) ++measured;
          return SetExpectedCodeset("ISO-2022-JP");
        },
        0, [](int32_t result) { return result == -3 || result == -1003; });
    EXPECT_EQ(test.failed + 1, measured);
    EXPECT_EQ(0, wrongCalls());
  });
}

TEST_F(Limits, OfTheAddressSpaceFailRegistrationsUntilThereIsRoom) {
  ASSERT_TRUE(engine_.start());
  traceInBasicFormat();
  inAProcess([] {
    // Lost is what cannot be converted: a name is then empty, a user refuses the call.
    RoomTest().run([] { return arm_init("application", "user", 0, nullptr, 0); }, 101,
                   [](int32_t result) { return result == -2 || result == -3 || result == -1003; });
    EXPECT_EQ(0, wrongCalls());
  });
}

/// All memory is used up but one block.
void leaveOneBlock(size_t size) {
  void* block = malloc(size);
  limitAddressSpace(addressSpaceInUse());
  useUpFreeMemory();
  free(block);
}

TEST_F(Limits, OfTheAddressSpaceGiveAnEmptyUserForTheLoginName) {
  ASSERT_TRUE(engine_.start());
  ASSERT_EQ(0, SetExpectedCodeset("UTF-8"));
  ASSERT_EQ(101, w_ArmInit(0, "application", "user", 0, nullptr, 0));
  unsigned rounds = 0;
  for (size_t size = 1040; size < 16384 && !HasFailure(); size += 256) {
    EXPECT_EQ(0, exitCodeOf(forkChild([size] {
                leaveOneBlock(size);
                return w_ArmInit(0, "application", "*", 0, nullptr, 0) == 101 ? 0 : 1;
              })))
        << size;
    EXPECT_EQ("", textAt(engine_.last(), 140, 128)) << size;
    ++rounds;
  }
  counted("login names looked up without memory", rounds);
}

#endif

void leaveDescriptors(rlim_t count) {
  while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
  }
  for (rlim_t i = 0; i < count; ++i) close(static_cast<int>(30 + i));
}

TEST_F(Limits, OfDescriptorsChangeNoResult) {
  ASSERT_TRUE(engine_.start());
  for (const rlim_t free : {rlim_t{0}, rlim_t{1}, rlim_t{2}}) {
    for (const bool tracing : {false, true}) {
      inAProcess([&] {
        const rlimit few = {64, 64};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
        if (tracing) traceInBasicFormat();
        leaveDescriptors(free);
        EXPECT_EQ(0, wrongCalls()) << free << " free";
        EXPECT_EQ(101, arm_init("application", "*", 0, nullptr, 0));
        EXPECT_EQ(101, w_ArmInit(0, "application", "*", 0, nullptr, 0));
        // Without tracing they need none, and leave none open.
        leaveDescriptors(0);
      });
    }
  }
  counted("no descriptors", 6);
}

// ---- disk ---------------------------------------------------------------------------------------

void logInto(const std::string& directory) {
  ASSERT_TRUE(writeText(PROPERTIES, "kestra_common_dir=" + directory + "\n"));
}

TEST_F(Limits, OfTheDiskCutTheTraceAndChangeNoResult) {
  ASSERT_EQ(0, mkdir("/var/small/QDN", 0755));
  ASSERT_EQ(0, mkdir("/var/small/QDN/logs", 0755));
  logInto("/var/small");
  traceInBasicFormat();
  ASSERT_TRUE(engine_.start());
  const std::string trace = "/var/small/QDN/logs/trace-armdebug.log";
  EXPECT_EQ("", outputOf([&] {
              for (int round = 0; round < 20; ++round) EXPECT_EQ(0, wrongCalls());
            }));
  EXPECT_EQ(16384, sizeOf(trace));
  // There is room again.
  ASSERT_EQ(0, truncate(trace.c_str(), 0));
  EXPECT_EQ(0, wrongCalls());
  EXPECT_LT(0, sizeOf(trace));
  counted("a full disk, rounds", 20);
}

// ---- name files ---------------------------------------------------------------------------------

/// What becomes of one name file, and what the calls of a process then return that has not called
/// before.
void expectCallsWith(const char* what, int32_t expected,
                     const std::function<void(const char*)>& change) {
  ScriptedEngine engine;
  ASSERT_TRUE(engine.start());
  for (const std::string& name : namePaths()) {
    SCOPED_TRACE(std::string(what) + ": " + name);
    const std::string kept = name + ".kept";
    inAProcess([&] {
      ASSERT_EQ(103, arm_start(5, 0, nullptr, 0));
      ASSERT_EQ(0, rename(name.c_str(), kept.c_str()));
      change(name.c_str());
      // An open connection needs them no more.
      EXPECT_EQ(0, wrongCalls());
    });
    inAProcess([&] { EXPECT_EQ(expected, arm_start(5, 0, nullptr, 0)); });
    (void)unlink(name.c_str());
    (void)rmdir(name.c_str());
    ASSERT_EQ(0, rename(kept.c_str(), name.c_str()));
  }
  counted(expected == -2 ? "name files that lead elsewhere or nowhere"
                         : "name files that lead to the objects",
          namePaths().size());
}

TEST(NameFiles, ThatAreMissingAreMinus2) {
  expectCallsWith("missing", -2, [](const char*) {});
}

TEST(NameFiles, ThatAreOthersAreMinus2) {
  expectCallsWith("another file", -2, [](const char* name) { (void)writeText(name, ""); });
  expectCallsWith("a directory", -2, [](const char* name) { (void)mkdir(name, 0755); });
  expectCallsWith("a pipe", -2, [](const char* name) { (void)mkfifo(name, 0644); });
}

TEST(NameFiles, ThatAreLinksCountAsWhatTheyLeadTo) {
  expectCallsWith("a link to it", 103, [](const char* name) {
    (void)symlink((std::string(name) + ".kept").c_str(), name);
  });
  expectCallsWith("a dangling link", -2, [](const char* name) { (void)symlink("/nowhere", name); });
  expectCallsWith("a link to itself", -2, [](const char* name) { (void)symlink(name, name); });
}

// The tests have no privileges, whoever runs them: permission bits count.
TEST(NameFiles, ThatCannotBeReadDoBecauseOnlyTheirNumbersAreNeeded) {
  ScriptedEngine engine;
  ASSERT_TRUE(engine.start());
  for (const std::string& name : namePaths()) ASSERT_EQ(0, chmod(name.c_str(), 0));
  ASSERT_GT(0, open(namePaths()[0].c_str(), O_RDONLY)) << "privileged";
  inAProcess([] { EXPECT_EQ(0, wrongCalls()); });
  counted("name files that lead to the objects", namePaths().size());
}

TEST(NameFiles, InADirectoryThatCannotBeSearchedAreMinus2) {
  ScriptedEngine engine;
  ASSERT_TRUE(engine.start());
  ASSERT_EQ(0, chmod("/var/kelp", 0));
  inAProcess([] { EXPECT_EQ(0, callsOtherThan(-2)); });
  ASSERT_EQ(0, chmod("/var/kelp", 0777));
  inAProcess([] { EXPECT_EQ(0, wrongCalls()); });
  counted("a directory of name files that cannot be searched", 1);
}

/// Sets the permission bits of the five sets and two segments of an engine.
void setPermissions(unsigned mode) {
  for (const std::string& path : namePaths()) {
    setSetMode(setAt(path), mode);
    if (segmentAt(path) >= 0) setSegmentMode(segmentAt(path), mode);
  }
}

// Both threads of the scripted engine see failures for the first time at once, which is reported by
// the thread sanitizer.
#if !defined(__SANITIZE_THREAD__)

TEST(Permissions, ThatAreTakenAwayAreMinus2) {
  ScriptedEngine engine;
  ASSERT_TRUE(engine.start());
  EXPECT_EQ(0, wrongCalls());
  setPermissions(0);
  EXPECT_EQ(0, callsOtherThan(-2));
  inAProcess([] { EXPECT_EQ(0, callsOtherThan(-2)); });
  setPermissions(0444);
  // Everything can be looked at, and nothing locked.
  inAProcess([] {
    const int32_t result = arm_start(5, 0, nullptr, 0);
    EXPECT_TRUE(result == -2 || result == -9) << result;
  });
  setPermissions(0666);
  EXPECT_EQ(0, wrongCalls());
  counted("sets and segments without permissions", 3);
}

#endif

// ---- log directory and trace file ---------------------------------------------------------------

const std::string& complaint() {
  static const std::string TEXT = "Failed to open trace file [" + std::string(TRACE_FILE) +
                                  "], make sure that subdirectory exists\n";
  return TEXT;
}

class TraceTarget : public CallsWithEngine {
 protected:
  void SetUp() override {
    CallsWithEngine::SetUp();
    traceInBasicFormat();
  }

  static void expectCallsPrinting(const std::string& printed) {
    EXPECT_EQ(printed, outputOf([] { EXPECT_EQ(0, wrongCalls()); }));
  }
};

TEST_F(TraceTarget, DirectoryThatIsAFileIsReportedOnce) {
  ASSERT_EQ(0, rmdir(LOG_DIRECTORY));
  ASSERT_TRUE(writeText(LOG_DIRECTORY, "mine"));
  expectCallsPrinting(complaint());
  expectCallsPrinting("");
  EXPECT_EQ(4, sizeOf(LOG_DIRECTORY));
  counted("log directory or trace file that cannot be used", 1);
}

TEST_F(TraceTarget, DirectoryThatIsADanglingLinkIsReportedOnce) {
  ASSERT_EQ(0, rmdir(LOG_DIRECTORY));
  ASSERT_EQ(0, symlink("/tmp/nowhere", LOG_DIRECTORY));
  expectCallsPrinting(complaint());
  EXPECT_EQ(-1, sizeOf("/tmp/nowhere"));
  counted("log directory or trace file that cannot be used", 1);
}

TEST_F(TraceTarget, DirectoryThatCannotBeWrittenIsReportedOnce) {
  ASSERT_EQ(0, chmod(LOG_DIRECTORY, 0555));
  expectCallsPrinting(complaint());
  counted("log directory or trace file that cannot be used", 1);
}

TEST_F(TraceTarget, FileThatIsADirectoryIsReportedOnce) {
  ASSERT_EQ(0, mkdir(TRACE_FILE, 0755));
  expectCallsPrinting(complaint());
  counted("log directory or trace file that cannot be used", 1);
}

TEST_F(TraceTarget, FileThatCannotBeWrittenIsReportedOnce) {
  ASSERT_TRUE(writeText(TRACE_FILE, "mine"));
  ASSERT_EQ(0, chmod(TRACE_FILE, 0400));
  expectCallsPrinting(complaint());
  EXPECT_EQ(4, sizeOf(TRACE_FILE));
  counted("log directory or trace file that cannot be used", 1);
}

// Links are followed: operators redirect traces so, and whoever may make one in the log directory
// may as well read and replace the trace itself. Nothing is ever truncated, and what is made is
// 0600.
TEST_F(TraceTarget, FileThatIsALinkIsAppendedToWhereItLeads) {
  ASSERT_TRUE(writeText("/tmp/elsewhere", "first line\n"));
  ASSERT_EQ(0, symlink("/tmp/elsewhere", TRACE_FILE));
  expectCallsPrinting("");
  EXPECT_EQ(0U, readTrace().find("first line\n"));
  EXPECT_LT(100, sizeOf("/tmp/elsewhere"));
  counted("trace file that is a link, a dangling link, a full device", 1);
}

TEST_F(TraceTarget, FileThatIsADanglingLinkIsMadeWhereItLeads) {
  ASSERT_EQ(0, symlink("/tmp/made", TRACE_FILE));
  expectCallsPrinting("");
  struct stat info = {};
  ASSERT_EQ(0, stat("/tmp/made", &info));
  EXPECT_LT(100, info.st_size);
  EXPECT_EQ(0600U, info.st_mode & 07777);
  counted("trace file that is a link, a dangling link, a full device", 1);
}

TEST_F(TraceTarget, FileThatIsALinkToItselfIsReportedOnce) {
  ASSERT_EQ(0, symlink(TRACE_FILE, TRACE_FILE));
  expectCallsPrinting(complaint());
  counted("log directory or trace file that cannot be used", 1);
}

TEST_F(TraceTarget, FileThatIsAFullDeviceLosesTheTrace) {
  ASSERT_EQ(0, symlink("/dev/full", TRACE_FILE));
  expectCallsPrinting("");
  counted("trace file that is a link, a dangling link, a full device", 1);
}

TEST_F(TraceTarget, FileThatIsAPipeDoesNotBlockACall) {
  ASSERT_EQ(0, mkfifo(TRACE_FILE, 0666));
  expectCallsPrinting("");
  // Somebody holds it open and reads nothing.
  const int holder = open(TRACE_FILE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_LE(0, holder);
  const std::string page(4096, 'x');
  while (write(holder, page.data(), page.size()) > 0) {
  }
  expectCallsPrinting("");
  close(holder);
  counted("trace file that is a pipe", 2);
}

TEST_F(TraceTarget, FileThatIsATerminalDoesNotBecomeTheProcesssOwn) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_LE(0, terminal) << "there is no terminal to be had";
  ASSERT_EQ(0, unlockpt(terminal));
  ASSERT_EQ(0, symlink(ptsname(terminal), TRACE_FILE));
  inAProcess([] {
    ASSERT_LT(0, setsid());
    EXPECT_EQ(0, wrongCalls());
    EXPECT_EQ(-1, open("/dev/tty", O_RDWR | O_CLOEXEC)) << "it has a terminal now";
  });
  close(terminal);
  counted("trace file that is a terminal", 1);
}

// ---- properties ---------------------------------------------------------------------------------

class Properties : public TraceTarget {
 protected:
  /// The trace goes to the default place.
  static void expectDefault() {
    expectCallsPrinting("");
    EXPECT_LT(100, sizeOf(TRACE_FILE));
  }
};

// The sanitizers' allocators have other limits.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

TEST_F(Properties, OfAGigabyteWithoutTheKeyGiveTheDefault) {
  ASSERT_TRUE(writeText(PROPERTIES, ""));
  ASSERT_EQ(0, truncate(PROPERTIES, 1L << 30));
  expectDefault();
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

#endif

TEST_F(Properties, OfNulsGiveTheDefault) {
  ASSERT_TRUE(writeText(PROPERTIES, std::string(100000, '\0')));
  expectDefault();
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

TEST_F(Properties, ThatAreADirectoryGiveTheDefault) {
  ASSERT_EQ(0, mkdir(PROPERTIES, 0755));
  expectDefault();
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

TEST_F(Properties, ThatAreAPipeGiveTheDefault) {
  ASSERT_EQ(0, mkfifo(PROPERTIES, 0644));
  expectDefault();
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

TEST_F(Properties, ThatAreADanglingLinkGiveTheDefault) {
  ASSERT_EQ(0, symlink("/nowhere", PROPERTIES));
  expectDefault();
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

TEST_F(Properties, OfAValueOf5000CharactersNameAPathThatCannotBeOpened) {
  logInto("/" + std::string(4999, 'd'));
  const std::string path = "/" + std::string(4094, 'd');
  expectCallsPrinting("Failed to open trace file [" + path +
                      "], make sure that subdirectory exists\n");
  EXPECT_EQ(-1, sizeOf(TRACE_FILE));
  counted("properties of a gigabyte, NULs, 5,000 characters, a directory, a pipe, a dangling link",
          1);
}

}  // namespace
}  // namespace armtest
