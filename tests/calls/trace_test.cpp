// The trace of whole programs and of every failure, byte for byte but for times and ids.

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "CallTest.h"
#include "tracefile.h"

namespace armtest {
namespace {

const Lines FIRST_LINE = {"Debug run found in caller's environment."};

const Lines OPEN_REQUEST_SEGMENT = {
    "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ae.kelp_mem",
    "CkesSharedMemory_UNIX::implOpen EXIT - name = /var/kelp/controls_ae.kelp_mem"};

const Lines OPEN_REPLY_QUEUE = {
    "CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] remove[0]",
    "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ea.kelp",
    "CkesSharedMemory_UNIX::implOpen EXIT - name = /var/kelp/controls_ea.kelp",
    "CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/controls_ea.kelp, items = 0",
    "CIPCQueue_LINUX::implInitialize EXIT - name = /var/kelp/controls_ea.kelp, items = 0",
    "CIPCQueue<T>::CIPCQueue(const char*,bool) EXIT, name[/var/kelp/controls_ea.kelp] remove[0] "
    "VInitialized[1]"};

const Lines OPEN = OPEN_REQUEST_SEGMENT + OPEN_REPLY_QUEUE;

/// Without name files: what the attempt to open writes.
const Lines NO_NAME_FILES = {
    "CkesSemaphore_LINUX::implOpen ftok call failed[2] for i_Name[/var/kelp/controls_ae.kelp_ovr]",
    "CIPCSimpleQueue Failed on VOverflowSem", "InitializeIPC, OutQueue failure",
    "InitializeIPC, OutQueue is not Initialized"};

const Lines OPEN_FAILED = {"CheckEngineStatus, InitializeIPC failed"};
const Lines STATUS_FAILED = {"  \aCheckEngineStatus failed"};

void expectTexts(const Lines& expected, const Lines& actual, int line = __builtin_LINE()) {
  EXPECT_EQ(expected, actual) << "from line " << line;
}

/// Tracing in the basic format.
class Trace : public Calls {
 protected:
  void SetUp() override {
    setenv("LC_ALL", "C", 1);
    setenv("ARMDEBUG", "1", 1);
    setenv("ARMDEBUGFORMAT", "basic", 1);
    unlink("/etc/nsswitch.conf");
  }

  /// Connects, and leaves an empty trace.
  void connect() {
    ASSERT_TRUE(engine_.start());
    ASSERT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
    clearTrace();
  }

  /// Registers without an engine, and leaves an empty trace.
  void settleSwitch() {
    ASSERT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
    clearTrace();
  }

  /// The texts of the trace so far, which then begins anew.
  static Lines takeTexts() {
    const Lines texts = basicTexts(readTrace());
    clearTrace();
    return texts;
  }
};

using TraceXml = Calls;
using TraceSwitch = Calls;

// ---- whole programs -----------------------------------------------------------------------------

const Lines WHOLE_PROGRAM = FIRST_LINE + Lines{"libarm:arm_init ENTER"} + OPEN +
                            Lines{"  app[editor]user[somebody]",
                                  "libarm:arm_init EXIT[101]",
                                  "libarm:arm_getid ENTER",
                                  "  applID[101] transname[save] transdetail[to disk]",
                                  "libarm:arm_getid EXIT[102]",
                                  "libarm:arm_start ENTER",
                                  "  tran_id[102]",
                                  "libarm:arm_start EXIT [103]",
                                  "libarm:arm_stop ENTER",
                                  "  start_handle[103]",
                                  "libarm:arm_stop EXIT[105]",
                                  "libarm:arm_end ENTER",
                                  "  appl_id[101]",
                                  "libarm:arm_end EXIT [106]"};

void runWholeProgram() {
  EXPECT_EQ(101, arm_init("editor", "somebody", 0, nullptr, 0));
  EXPECT_EQ(102, arm_getid(101, "save", "to disk", 0, nullptr, 0));
  EXPECT_EQ(103, arm_start(102, 0, nullptr, 0));
  EXPECT_EQ(104, arm_update(103, 0, nullptr, 0));
  EXPECT_EQ(105, arm_stop(103, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(116, arm_transactionReport(102, 0, nullptr, 0, 1, 0, 0, 0));
  EXPECT_EQ(117, arm_transactionInstanceReport(102, 0, nullptr, 0, 1, 0, 0, 0));
  EXPECT_EQ(115, arm_completeTransaction(102, 0, 0));
  EXPECT_EQ(118, arm_completeTransactionInstance(102, 0, 0));
  EXPECT_EQ(119, arm_associateMetricData(102, "data", 4));
  EXPECT_STREQ("ARM_CORRELATOR", arm_getCorrelatorKey());
  EXPECT_EQ(106, arm_end(101, 0, nullptr, 0));
}

TEST_F(Trace, OfAWholeProgramInTheBasicFormat) {
  ASSERT_TRUE(engine_.start());
  runWholeProgram();
  expectTexts(WHOLE_PROGRAM, takeTexts());
}

/// The texts of the program's records: those that the writer of lines ended carry no newline.
Lines xmlTexts(const Lines& lines) {
  Lines texts;
  for (const std::string& line : lines) {
    const bool ended_by_writer =
        line.find("CkesSharedMemory_UNIX::") == 0 || line.find("CIPCQueue_LINUX::") == 0;
    texts.push_back(ended_by_writer ? line : line + "\n");
  }
  return texts;
}

TEST_F(TraceXml, OfAWholeProgramIsTheDefaultFormat) {
  setenv("ARMDEBUG", "1", 1);
  unsetenv("ARMDEBUGFORMAT");
  ASSERT_TRUE(engine_.start());
  runWholeProgram();
  EXPECT_EQ(xmlTrace(xmlTexts(WHOLE_PROGRAM)), withoutTimes(readTrace()));
}

TEST_F(TraceXml, OfAnErrorLineHoldsTheBellAndTheNewlineAsTheyAre) {
  setenv("ARMDEBUG", "1", 1);
  unsetenv("ARMDEBUGFORMAT");
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(-1, arm_init(nullptr, nullptr, 0, nullptr, 0));
  EXPECT_EQ(xmlTrace(xmlTexts(FIRST_LINE + Lines{"libarm:arm_init ENTER"} + OPEN +
                              Lines{"  \aappl_name is NULL", "libarm:arm_init EXIT[-1]"})),
            withoutTimes(readTrace()));
}

// ---- silent calls -------------------------------------------------------------------------------

void makeSilentCalls(int32_t handle) {
  (void)arm_update(handle, 0, nullptr, 0);
  (void)arm_transactionReport(handle, 0, nullptr, 0, 1, 0, 0, 0);
  (void)arm_transactionInstanceReport(handle, 0, nullptr, 0, 1, 0, 0, 0);
  (void)arm_completeTransaction(handle, 0, 0);
  (void)arm_completeTransactionInstance(handle, 0, 0);
  (void)arm_associateMetricData(handle, "data", 4);
  (void)arm_getCorrelatorKey();
  (void)GetExpectedCodeset();
  (void)SetExpectedCodeset("UTF-8");
}

TEST_F(Trace, OfUpdateReportsCompletionsAndMetricDataIsEmpty) {
  connect();
  makeSilentCalls(5);
  makeSilentCalls(-1);
  makeSilentCalls(2147483647);
  EXPECT_FALSE(traceExists());
  EXPECT_EQ(1U + 6U, engine_.taken());
}

TEST_F(Trace, OfUpdateReportsCompletionsAndMetricDataIsEmptyWhenTheyFailToo) {
  EngineSetup setup;
  setup.requests = 1;
  setup.requesters = 2;
  ASSERT_TRUE(engine_.start(setup));
  ASSERT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  clearTrace();
  engine_.setReplyState(1);
  engine_.drop();
  makeSilentCalls(5);
  engine_.setRequestState(1);
  makeSilentCalls(5);
  EXPECT_FALSE(traceExists());
}

TEST_F(Trace, OfASilentCallWithoutAnEngineHasTheLinesOfTheStatusCheckAlone) {
  settleSwitch();
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  expectTexts(NO_NAME_FILES + OPEN_FAILED, takeTexts());
  EXPECT_EQ(-2, arm_completeTransaction(5, 0, 0));
  expectTexts(NO_NAME_FILES + OPEN_FAILED, takeTexts());
}

// ---- ENTER, EXIT and the error lines ------------------------------------------------------------

TEST_F(Trace, OfACallWithoutAnEngineNamesTheFailedStatusCheck) {
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  expectTexts(FIRST_LINE + Lines{"libarm:arm_init ENTER"} + NO_NAME_FILES + OPEN_FAILED +
                  STATUS_FAILED + Lines{"libarm:arm_init EXIT[-2]"},
              takeTexts());
  EXPECT_EQ(-2, arm_getid(5, "n", "d", 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_getid ENTER"} + NO_NAME_FILES + OPEN_FAILED + STATUS_FAILED +
                  Lines{"libarm:arm_getid EXIT[-2]"},
              takeTexts());
  EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER"} + NO_NAME_FILES + OPEN_FAILED + STATUS_FAILED +
                  Lines{"libarm:arm_start EXIT [-2]"},
              takeTexts());
  EXPECT_EQ(-2, arm_stop(5, 0, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_stop ENTER"} + NO_NAME_FILES + OPEN_FAILED + STATUS_FAILED +
                  Lines{"libarm:arm_stop EXIT[-2]"},
              takeTexts());
  EXPECT_EQ(-2, arm_end(5, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_end ENTER"} + NO_NAME_FILES + OPEN_FAILED + STATUS_FAILED +
                  Lines{"libarm:arm_end EXIT [-2]"},
              takeTexts());
}

TEST_F(Trace, OfRejectedRegistrations) {
  connect();
  EXPECT_EQ(-1, arm_init(nullptr, "u", 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_init ENTER", "  \aappl_name is NULL", "libarm:arm_init EXIT[-1]"},
              takeTexts());
  const Lines too_long = {"libarm:arm_init ENTER", "  \aSome param is too long",
                          "libarm:arm_init EXIT[-1]"};
  EXPECT_EQ(-1, arm_init("", "u", 0, nullptr, 0));
  expectTexts(too_long, takeTexts());
  EXPECT_EQ(-1, arm_init("a", std::string(128, 'u').c_str(), 0, nullptr, 0));
  expectTexts(too_long, takeTexts());
  const Lines invalid = {"libarm:arm_getid ENTER", "  \aappl_id or trans name is invalid",
                         "libarm:arm_getid EXIT[-1]"};
  EXPECT_EQ(-1, arm_getid(0, "n", "d", 0, nullptr, 0));
  expectTexts(invalid, takeTexts());
  EXPECT_EQ(-1, arm_getid(1, nullptr, "d", 0, nullptr, 0));
  expectTexts(invalid, takeTexts());
  EXPECT_EQ(-1, arm_getid(1, "", "d", 0, nullptr, 0));
  expectTexts(
      Lines{"libarm:arm_getid ENTER", "  \aSome name is too long", "libarm:arm_getid EXIT[-1]"},
      takeTexts());
  EXPECT_EQ(-1, arm_end(0, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_end ENTER", "  \aappl_id is invalid", "libarm:arm_end EXIT [-1]"},
              takeTexts());
}

TEST_F(Trace, OfRejectedAndIgnoredMeasurements) {
  connect();
  EXPECT_EQ(-1, arm_start(-1, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER", "  \aBad tran ID", "libarm:arm_start EXIT [-1]"},
              takeTexts());
  Bytes block = makeBlock(256, 1, 0xC0);
  block[197] = 1;
  EXPECT_EQ(2147483647, arm_start(-1, 0, block.data(), 256));
  expectTexts(Lines{"libarm:arm_start ENTER", "  Ignoring this tran_id",
                    "libarm:arm_start EXIT [2147483647]"},
              takeTexts());
  EXPECT_EQ(-1, arm_stop(-1, 0, 0, nullptr, 0));
  expectTexts(
      Lines{"libarm:arm_stop ENTER", "  \aInvalid start_handle", "libarm:arm_stop EXIT[-1]"},
      takeTexts());
  EXPECT_EQ(0, arm_stop(2147483647, 0, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_stop ENTER", "  Passed IGNOREID", "libarm:arm_stop EXIT[0]"},
              takeTexts());
}

TEST_F(Trace, OfAFailedPost) {
  connect();
  engine_.setRequestState(1);
  const Lines failed = {"  \aIPCPostToEngine failed"};
  EXPECT_EQ(-9, arm_init("a", "u", 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_init ENTER", "  app[a]user[u]"}) + failed +
                  Lines{"libarm:arm_init EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_getid(1, "n", "d", 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_getid ENTER", "  applID[1] transname[n] transdetail[d]"}) +
                  failed + Lines{"libarm:arm_getid EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_start(1, 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_start ENTER", "  tran_id[1]"}) + failed +
                  Lines{"libarm:arm_start EXIT [-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_stop(1, 0, 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_stop ENTER", "  start_handle[1]"}) + failed +
                  Lines{"libarm:arm_stop EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_end(1, 0, nullptr, 0));
  expectTexts(
      Lines({"libarm:arm_end ENTER", "  appl_id[1]"}) + failed + Lines{"libarm:arm_end EXIT [-9]"},
      takeTexts());
}

TEST_F(Trace, OfAFullRing) {
  EngineSetup setup;
  setup.requests = 1;
  ASSERT_TRUE(engine_.start(setup));
  ASSERT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  engine_.pause();
  CallInThread blocked([] { return arm_update(1, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitSleepers(1));
  clearTrace();
  EXPECT_EQ(-8, arm_start(1, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER", "  tran_id[1]", "  \aIPCPostToEngine failed",
                    "libarm:arm_start EXIT [-8]"},
              takeTexts());
  engine_.resume();
  EXPECT_EQ(104, blocked.result());
}

TEST_F(Trace, OfAFailedWaitIsMisspelledInArmEndAlone) {
  connect();
  engine_.setReplyState(1);
  engine_.drop();
  const Lines failed = {"  \aIPCGetFromEngine failed"};
  EXPECT_EQ(-9, arm_init("a", "u", 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_init ENTER", "  app[a]user[u]"}) + failed +
                  Lines{"libarm:arm_init EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_getid(1, "n", "d", 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_getid ENTER", "  applID[1] transname[n] transdetail[d]"}) +
                  failed + Lines{"libarm:arm_getid EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_start(1, 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_start ENTER", "  tran_id[1]"}) + failed +
                  Lines{"libarm:arm_start EXIT [-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_stop(1, 0, 0, nullptr, 0));
  expectTexts(Lines({"libarm:arm_stop ENTER", "  start_handle[1]"}) + failed +
                  Lines{"libarm:arm_stop EXIT[-9]"},
              takeTexts());
  EXPECT_EQ(-9, arm_end(1, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_end ENTER", "  appl_id[1]", "  \aIPCGetFrmEngine failed",
                    "libarm:arm_end EXIT [-9]"},
              takeTexts());
}

// ---- conversions --------------------------------------------------------------------------------

constexpr const char* UNCONVERTIBLE = "\xED\xA0\x80";
const Lines SECOND_STEP_FAILED = {"ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [10] "};

TEST_F(Trace, OfANameThatCannotBeConverted) {
  connect();
  ASSERT_EQ(-3004, SetExpectedCodeset("CESU-8"));
  const std::string long_name(127, '\xFF');
  EXPECT_EQ(101, arm_init(long_name.c_str(), "u", 0, nullptr, 0));
  expectTexts(
      Lines({"libarm:arm_init ENTER", "ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [15] ",
             "Conversion of appl_name[" + long_name + "] failed[-1003]", "  app[]user[u]",
             "libarm:arm_init EXIT[101]"}),
      takeTexts());
}

TEST_F(Trace, OfTwoNamesThatCannotBeConverted) {
  ASSERT_EQ(0, SetExpectedCodeset("CESU-8"));
  connect();
  EXPECT_EQ(-1003, arm_init(UNCONVERTIBLE, UNCONVERTIBLE, 0, nullptr, 0));
  expectTexts(
      Lines{"libarm:arm_init ENTER"} + SECOND_STEP_FAILED +
          Lines{std::string("Conversion of appl_name[") + UNCONVERTIBLE + "] failed[-1003]"} +
          SECOND_STEP_FAILED +
          Lines{std::string("Conversion of appl_user_id[") + UNCONVERTIBLE + "] failed[-1003]",
                "  \aUTF-8 conversion failed", "libarm:arm_init EXIT[-1003]"},
      takeTexts());
}

TEST_F(Trace, OfClassNamesThatCannotBeConvertedHasNoConversionLine) {
  ASSERT_EQ(0, SetExpectedCodeset("CESU-8"));
  connect();
  EXPECT_EQ(102, arm_getid(1, UNCONVERTIBLE, "d", 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_getid ENTER"} + SECOND_STEP_FAILED +
                  Lines{"  applID[1] transname[] transdetail[d]", "libarm:arm_getid EXIT[102]"},
              takeTexts());
  EXPECT_EQ(-1003, arm_getid(1, "n", UNCONVERTIBLE, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_getid ENTER"} + SECOND_STEP_FAILED +
                  Lines{"  \aUTF-8 conversion failed", "libarm:arm_getid EXIT[-1003]"},
              takeTexts());
}

TEST_F(Trace, OfALoginNameThatCannotBeConverted) {
  FILE* file = fopen("/etc/passwd", "w");
  ASSERT_NE(nullptr, file);
  fprintf(file, "%s:x:%u:%u::/:/bin/sh\n", std::string(200, 'l').c_str(), unsigned(getuid()),
          unsigned(getgid()));
  fclose(file);
  connect();
  EXPECT_EQ(-1003, arm_init("a", "*", 0, nullptr, 0));
  // A first step that fails is traced under both names.
  expectTexts(
      Lines{"libarm:arm_init ENTER", "ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code [15] ",
            "ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [15] ", "  \aUTF-8 conversion failed",
            "libarm:arm_init EXIT[-1003]"},
      takeTexts());
}

TEST_F(Trace, OfACodesetThatIsNotKnown) {
  settleSwitch();
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  expectTexts(Lines{"intlGetICUConverter()->ICU ERROR Code [4] on ucnv_open() for codeset "
                    "<no such code set> "},
              takeTexts());
}

// ---- long lines ---------------------------------------------------------------------------------

TEST_F(Trace, OfGetidWith3619And127CharactersIsNotCut) {
  connect();
  const std::string name = std::string(3618, 'n') + "N";
  const std::string detail = std::string(126, 'd') + "D";
  for (const uint8_t convert : Bytes{0, 1}) {
    EXPECT_EQ(102, w_ArmGetID(convert, 2147483647, name.c_str(), detail.c_str(), 0, nullptr, 0));
    expectTexts(Lines{"libarm:arm_getid ENTER",
                      "  applID[2147483647] transname[" + name + "] transdetail[" + detail + "]",
                      "libarm:arm_getid EXIT[102]"},
                takeTexts());
  }
}

TEST_F(Trace, OfInitWithTwice127CharactersIsNotCut) {
  connect();
  const std::string name(127, 'n');
  const std::string user(127, 'u');
  EXPECT_EQ(101, arm_init(name.c_str(), user.c_str(), 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_init ENTER", "  app[" + name + "]user[" + user + "]",
                    "libarm:arm_init EXIT[101]"},
              takeTexts());
}

TEST_F(Trace, OfNamesWithPercentSignsShowsThemAsTheyAre) {
  connect();
  EXPECT_EQ(101, arm_init("%s%n%d", "%%", 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_init ENTER", "  app[%s%n%d]user[%%]", "libarm:arm_init EXIT[101]"},
              takeTexts());
}

TEST_F(Trace, ShowsTheStoredNamesNotTheCallers) {
  connect();
  EXPECT_EQ(101, arm_init("a\xFFz", nullptr, 0, nullptr, 0));
  expectTexts(
      Lines{"libarm:arm_init ENTER", "  app[a\xEF\xBF\xBDz]user[]", "libarm:arm_init EXIT[101]"},
      takeTexts());
}

// ---- the connection -----------------------------------------------------------------------------

/// What arm_start writes around the lines of its connection.
Lines startLines(const Lines& connection) {
  return Lines{"libarm:arm_start ENTER"} + connection +
         Lines{"  tran_id[5]", "libarm:arm_start EXIT [103]"};
}

const Lines FOUND_DEAD = {"IsEngineAlive: CreatorAlive failed",
                          "CheckEngineStatus, IsEngineAlive failed"};
const Lines TRY_AGAIN = {"CheckEngineStatus, Try to InitializeIPC again."};
/// The old reply queue tries to lock the segment whose set is gone.
const Lines OLD_REPLY_QUEUE = {
    "CkesSharedMemory::implLock: semop on VSemaphore[*] failed [-1] errno[*]"};

Lines masked(const Lines& texts) {
  return withoutNumbers(texts, {"VSemaphore[", " errno["});
}

TEST_F(Trace, OfARestartShowsTheLockOfTheOldReplyQueueBeforeTheSecondTry) {
  connect();
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  expectTexts(startLines(FOUND_DEAD + OLD_REPLY_QUEUE + TRY_AGAIN + OPEN), masked(takeTexts()));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  expectTexts(startLines({}), takeTexts());
}

TEST_F(Trace, OfTheLockOfARemovedSetNamesErrno22) {
  connect();
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  const Lines texts = withoutNumbers(takeTexts(), {"VSemaphore["});
  ASSERT_LT(3U, texts.size());
  EXPECT_EQ("CkesSharedMemory::implLock: semop on VSemaphore[*] failed [-1] errno[22]", texts[3]);
}

TEST_F(Trace, OfARestartSeenByASilentCallHasTheLinesOfTheConnectionAlone) {
  connect();
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
  expectTexts(FOUND_DEAD + OLD_REPLY_QUEUE + TRY_AGAIN + OPEN, masked(takeTexts()));
}

TEST_F(Trace, OfAnEngineThatEndedInGoodOrder) {
  connect();
  engine_.quit();
  EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER"} + FOUND_DEAD + OLD_REPLY_QUEUE + TRY_AGAIN +
                  NO_NAME_FILES + Lines{"CheckEngineStatus, 2nd try at InitializeIPC failed."} +
                  STATUS_FAILED + Lines{"libarm:arm_start EXIT [-2]"},
              masked(takeTexts()));
  EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER"} + NO_NAME_FILES + OPEN_FAILED + STATUS_FAILED +
                  Lines{"libarm:arm_start EXIT [-2]"},
              takeTexts());
}

const Lines OPEN_OF_A_DEAD_ENGINE = {
    "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ae.kelp_mem",
    "CkesSharedMemory_UNIX::implOpen - ERROR - semctl(VSemaphore, 1, GETVAL) failed where errno = "
    "*, sem_val = 1",
    "InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue Creator is not alive"};

TEST_F(Trace, OfAnEngineThatWasKilled) {
  connect();
  engine_.kill();
  EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0));
  // Its sets are still there: the old reply queue is locked without a failure.
  expectTexts(Lines{"libarm:arm_start ENTER"} + FOUND_DEAD + TRY_AGAIN + OPEN_OF_A_DEAD_ENGINE +
                  Lines{"CheckEngineStatus, 2nd try at InitializeIPC failed."} + STATUS_FAILED +
                  Lines{"libarm:arm_start EXIT [-2]"},
              withoutNumbers(takeTexts(), {"where errno = "}));
  EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0));
  expectTexts(Lines{"libarm:arm_start ENTER"} + OPEN_OF_A_DEAD_ENGINE + OPEN_FAILED +
                  STATUS_FAILED + Lines{"libarm:arm_start EXIT [-2]"},
              withoutNumbers(takeTexts(), {"where errno = "}));
}

TEST_F(Trace, OfAWrongVersionWord) {
  connect();
  engine_.setVersion(50299);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  expectTexts(startLines(Lines{"IsEngineAlive: OutQueue version[50299] does not match libarm "
                               "version[50300]",
                               "CheckEngineStatus, IsEngineAlive failed"} +
                         TRY_AGAIN + OPEN),
              takeTexts());
}

TEST_F(Trace, OfAVersionWordWithAllBitsSetIsUnsigned) {
  connect();
  engine_.setVersion(-1);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  const Lines texts = takeTexts();
  ASSERT_LT(1U, texts.size());
  EXPECT_EQ("IsEngineAlive: OutQueue version[4294967295] does not match libarm version[50300]",
            texts[1]);
}

TEST_F(Trace, OfAnEngineThatIsNotReadyNamesNoSecondReason) {
  EngineSetup setup;
  setup.ready = false;
  ASSERT_TRUE(engine_.start(setup));
  settleSwitch();
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  expectTexts(OPEN_REQUEST_SEGMENT + Lines{"InitializeIPC, OutQueue failure"} + OPEN_FAILED,
              takeTexts());
}

TEST_F(Trace, OfARequestQueueThatIsStopped) {
  ASSERT_TRUE(engine_.start());
  engine_.setRequestState(1);
  settleSwitch();
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  expectTexts(OPEN_REQUEST_SEGMENT +
                  Lines{"CIPCSimpleQueue VQueueState is bad", "InitializeIPC, OutQueue failure",
                        "InitializeIPC, OutQueue is not Initialized"} +
                  OPEN_FAILED,
              takeTexts());
}

TEST_F(Trace, OfAReplyQueueThatIsStopped) {
  ASSERT_TRUE(engine_.start());
  engine_.setReplyState(1);
  settleSwitch();
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  Lines refused = OPEN;
  refused.back().replace(refused.back().find("VInitialized[1]"), 15, "VInitialized[0]");
  expectTexts(refused + Lines{"InitializeIPC, Failed to create InQueue"} + OPEN_FAILED,
              takeTexts());
}

TEST_F(Trace, OfAMissingReplyQueueHasTwoBlanksBehindTheSecondDash) {
  ASSERT_TRUE(engine_.start());
  ASSERT_EQ(0, rename("/var/kelp/controls_ea.kelp", "/var/kelp/away"));
  settleSwitch();
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  expectTexts(
      OPEN_REQUEST_SEGMENT +
          Lines{"CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, "
                "name[/var/kelp/controls_ea.kelp] remove[0]",
                "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ea.kelp",
                "CkesSharedMemory_UNIX::implOpen - ERROR -  ftok(name, IPC_MEM_ID) failed where "
                "name = /var/kelp/controls_ea.kelp, errno = 2",
                "CIPCQueue<T>::CIPCQueue(const char*,bool) - ERROR "
                "-VSharedMemory->GetInitResult() = -250",
                "InitializeIPC, Failed to create InQueue"} +
          OPEN_FAILED,
      takeTexts());
  ASSERT_EQ(0, rename("/var/kelp/away", "/var/kelp/controls_ea.kelp"));
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
  expectTexts(OPEN, takeTexts());
}

TEST_F(Trace, OfAPrefixedEngineShowsItsPaths) {
  setenv("ARM_AGENT_PREFIX", "agent2", 1);
  EngineSetup setup;
  setup.prefixed = true;
  setup.prefix = "agent2";
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  const Lines texts = takeTexts();
  ASSERT_LT(7U, texts.size());
  EXPECT_EQ("CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ae.kelp_mem.agent2",
            texts[2]);
  // The queue's own lines show the name that it was given.
  EXPECT_EQ(
      "CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] remove[0]",
      texts[4]);
  EXPECT_EQ(
      "CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/controls_ea.kelp.agent2, items = 0",
      texts[7]);
}

// ---- the switch ---------------------------------------------------------------------------------

TEST_F(TraceSwitch, IsNotSettledBeforeTheFirstRegistration) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(102, arm_getid(5, "n", "d", 0, nullptr, 0));
  EXPECT_EQ(106, arm_end(5, 0, nullptr, 0));
  EXPECT_FALSE(traceExists());
  EXPECT_EQ(101, w_ArmInit(0, "a", "u", 0, nullptr, 0));
  expectTexts(
      FIRST_LINE + Lines({"libarm:arm_init ENTER", "  app[a]user[u]", "libarm:arm_init EXIT[101]"}),
      basicTexts(readTrace()));
  clearTrace();
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  expectTexts(startLines({}), basicTexts(readTrace()));
}

TEST_F(TraceSwitch, IsSettledByARegistrationThatIsRejectedToo) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  EXPECT_EQ(-2, arm_init(nullptr, nullptr, 0, nullptr, 0));
  EXPECT_EQ(FIRST_LINE, Lines{basicTexts(readTrace()).front()});
}

TEST_F(TraceSwitch, IsOnWithAnEmptyValue) {
  setenv("ARMDEBUG", "", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_EQ(FIRST_LINE, Lines{basicTexts(readTrace()).front()});
}

TEST_F(TraceSwitch, IsOffWithoutTheVariableWhateverTheFormatVariableSays) {
  unsetenv("ARMDEBUG");
  setenv("ARMDEBUGFORMAT", "basic", 1);
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-2, one.call());
  ASSERT_TRUE(engine_.start());
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(100 + one.type, one.call());
  EXPECT_FALSE(traceExists());
}

TEST_F(TraceSwitch, IsNotSwitchedOnByALaterChangeOfTheEnvironment) {
  unsetenv("ARMDEBUG");
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  setenv("ARMDEBUG", "1", 1);
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_FALSE(traceExists());
}

TEST_F(TraceSwitch, AndFormatAreNotChangedByALaterChangeOfTheEnvironment) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  clearTrace();
  unsetenv("ARMDEBUG");
  setenv("ARMDEBUGFORMAT", "xml", 1);
  EXPECT_EQ(-1003, SetExpectedCodeset("?"));
  expectTexts(Lines{"intlGetICUConverter()->ICU ERROR Code [4] on ucnv_open() for codeset <?> "},
              basicTexts(readTrace()));
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_EQ("libarm:arm_init ENTER", basicTexts(readTrace())[1]);
}

TEST_F(TraceSwitch, GivesTheXmlFormatForEveryOtherValue) {
  for (const char* format : {"Basic", "basic ", "BASIC", "", "xml"}) {
    const pid_t child = forkChild([format] {
      setenv("ARMDEBUG", "1", 1);
      setenv("ARMDEBUGFORMAT", format, 1);
      return arm_init("a", "u", 0, nullptr, 0) == -2 ? 0 : 1;
    });
    EXPECT_EQ(0, exitCodeOf(child));
    EXPECT_EQ("<Trace>\n", readTrace().substr(0, 8)) << format;
    clearTrace();
  }
}

TEST_F(TraceSwitch, TracesIntoADirectoryOfTheProperties) {
  FILE* file = fopen("/etc/orv/kestra/common/cfg/log.properties", "w");
  ASSERT_NE(nullptr, file);
  fputs("kestra_common_dir=/var/tmp/x\n", file);
  fclose(file);
  ASSERT_EQ(0, system("mkdir -p /var/tmp/x/QDN/logs"));
  setenv("ARMDEBUG", "1", 1);
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_FALSE(traceExists());
  EXPECT_EQ(0, access("/var/tmp/x/QDN/logs/trace-armdebug.log", F_OK));
}

}  // namespace
}  // namespace armtest
