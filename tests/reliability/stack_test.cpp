// How much stack the calls use, measured on a painted stack, and how much memory they allocate.
// This program has its own malloc.

#include <limits.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>

#include "CallTest.h"
#include "counted.h"
#include "shared.h"

namespace {

__attribute__((tls_model("initial-exec"))) thread_local bool counting = false;
__attribute__((tls_model("initial-exec"))) thread_local unsigned allocations = 0;

void countAllocation() {
  if (counting) ++allocations;
}

}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);

extern "C" void* malloc(size_t size) noexcept {
  countAllocation();
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept {
  countAllocation();
  return __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, size_t size) noexcept {
  countAllocation();
  return __libc_realloc(memory, size);
}

namespace armtest {
namespace {

constexpr size_t PAINTED_STACK = 512 * 1024;
constexpr uint8_t PAINT = 0xC7;
/// Left alone below the measuring function's own frame while it paints.
constexpr size_t UNPAINTED = 256;

const std::string& longName() {
  static const std::string NAME(3619, 'n');
  return NAME;
}

/// In most code sets it cannot be converted, or grows too long: that is traced.
const std::string& unconvertibleName() {
  static const std::string NAME(3619, '\xE9');
  return NAME;
}

/// What a call may need of its caller's stack: the manual page promises it.
constexpr uint32_t PROMISED = 16 * 1024;

struct MeasuredCall {
  const char* name;
  bool measures;  ///< not a registration and not one of the code-set calls
  void (*call)();
};

uint8_t* block() {
  static Bytes bytes = makeBlock(1024, 1, 0x40);
  return bytes.data();
}

const std::vector<MeasuredCall>& measuredCalls() {
  static const std::vector<MeasuredCall> ALL = {
      {"`arm_init`", false, [] { (void)arm_init("application", "user", 0, nullptr, 0); }},
      {"`arm_init`, user `*`", false, [] { (void)arm_init("application", "*", 0, nullptr, 0); }},
      {"`w_ArmInit`", false, [] { (void)w_ArmInit(0, "application", "user", 0, nullptr, 0); }},
      {"`arm_getid`", false,
       [] { (void)arm_getid(5, longName().c_str(), "detail", 0, nullptr, 0); }},
      {"`arm_getid`, name not convertible", false,
       [] { (void)arm_getid(5, unconvertibleName().c_str(), "detail", 0, nullptr, 0); }},
      {"`w_ArmGetID`", false,
       [] { (void)w_ArmGetID(0, 5, longName().c_str(), "detail", 0, nullptr, 0); }},
      {"`arm_start`", true, [] { (void)arm_start(5, 0, block(), 256); }},
      {"`arm_update`", true, [] { (void)arm_update(5, 0, block(), 256); }},
      {"`arm_stop`", true, [] { (void)arm_stop(5, ARM_GOOD, 0, block(), 256); }},
      {"`arm_end`", false, [] { (void)arm_end(5, 0, nullptr, 0); }},
      {"`arm_transactionReport`", true,
       [] { (void)arm_transactionReport(5, 0, block(), 256, 1, 6, 7, 8); }},
      {"`arm_transactionInstanceReport`", true,
       [] { (void)arm_transactionInstanceReport(5, 0, block(), 256, 1, 6, 7, 8); }},
      {"`arm_completeTransaction`", true, [] { (void)arm_completeTransaction(5, 6, 7); }},
      {"`arm_completeTransactionInstance`", true,
       [] { (void)arm_completeTransactionInstance(5, 6, 7); }},
      {"`arm_associateMetricData`", true, [] { (void)arm_associateMetricData(5, block(), 1024); }},
      {"`arm_getCorrelatorKey`", true, [] { (void)arm_getCorrelatorKey(); }},
      {"`SetExpectedCodeset`", false, [] { (void)SetExpectedCodeset("ISO-2022-JP"); }},
      {"`GetExpectedCodeset`", false, [] { (void)GetExpectedCodeset(); }},
  };
  return ALL;
}

// ---- threads on stacks of a given size ----------------------------------------------------------

/// Runs a body in a thread of this size, which must have room for the thread itself too.
void runOnStack(size_t size, std::function<void()> body) {
  pthread_attr_t attributes;
  ASSERT_EQ(0, pthread_attr_init(&attributes));
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, size));
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &body));
  ASSERT_EQ(0, pthread_join(thread, nullptr));
  pthread_attr_destroy(&attributes);
}

uint8_t* lowestByteOfThisStack() {
  pthread_attr_t attributes;
  void* lowest = nullptr;
  size_t size = 0;
  (void)pthread_getattr_np(pthread_self(), &attributes);
  (void)pthread_attr_getstack(&attributes, &lowest, &size);
  pthread_attr_destroy(&attributes);
  return static_cast<uint8_t*>(lowest);
}

/// Bytes of stack below this function's frame that a call uses.
__attribute__((noinline)) size_t depthOf(void (*call)()) {
  uint8_t* bottom = lowestByteOfThisStack() + 4096;
  auto* frame = static_cast<uint8_t*>(__builtin_frame_address(0));
  std::memset(bottom, PAINT, static_cast<size_t>(frame - bottom) - UNPAINTED);
  call();
  const uint8_t* touched = bottom;
  while (*touched == PAINT) ++touched;
  return static_cast<size_t>(frame - touched);
}

// ---- what is measured ---------------------------------------------------------------------------

enum class Tracing { off, basic, xml };
enum class Connection { open, first, restarted };

struct Setting {
  const char* name;
  Tracing tracing;
  Connection connection;
};

constexpr Setting SETTINGS[] = {
    {"open", Tracing::off, Connection::open},
    {"opening", Tracing::off, Connection::first},
    {"open, basic trace", Tracing::basic, Connection::open},
    {"reopening, basic trace", Tracing::basic, Connection::restarted},
    {"open, XML trace", Tracing::xml, Connection::open},
    {"reopening, XML trace", Tracing::xml, Connection::restarted},
    {"opening, XML trace", Tracing::xml, Connection::first},
};

void setTracing(Tracing tracing) {
  if (tracing == Tracing::off) return;
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", tracing == Tracing::basic ? "basic" : "xml", 1);
}

class Stacks : public testing::Test {
 protected:
  /// Brings this process, a fresh one, to where the measured call is to be made.
  void prepare(const Setting& setting, const MeasuredCall& call) {
    setTracing(setting.tracing);
    if (setting.connection == Connection::first) return;
    // The registration settles the trace switch, here in another thread.
    runOnStack(PAINTED_STACK, [] { (void)arm_init("application", "user", 0, nullptr, 0); });
    runOnStack(PAINTED_STACK, call.call);
    if (setting.connection != Connection::restarted) return;
    board_->step.store(1);
    (void)waitUntil([this] { return board_->step.load() == 2; });
  }

  /// Makes one call in a thread of a process of its own.
  void callInAProcess(const Setting& setting, const MeasuredCall& call, size_t stack,
                      const std::function<void()>& body) {
    board_->step.store(0);
    const pid_t process = forkChild([&] {
      prepare(setting, call);
      runOnStack(stack, body);
      return 0;
    });
    if (setting.connection == Connection::restarted) {
      EXPECT_TRUE(waitUntil([this] { return board_->step.load() == 1; }));
      engine_.kill();
      EXPECT_TRUE(engine_.start());
      board_->step.store(2);
    }
    EXPECT_EQ(0, exitCodeOf(process)) << call.name << ", " << setting.name;
    (void)engine_.reclaim();
  }

  uint32_t measure(const Setting& setting, const MeasuredCall& call) {
    board_->depth.store(0);
    callInAProcess(setting, call, PAINTED_STACK,
                   [&] { board_->depth.store(static_cast<uint32_t>(depthOf(call.call))); });
    EXPECT_LT(0U, board_->depth.load());
    return board_->depth.load();
  }

  struct Board {
    std::atomic<uint32_t> depth;
    std::atomic<int> step;
  };

  ScriptedEngine engine_;
  Shared<Board> board_;
};

/// A call of a process whose tracing was not settled by a registration does not trace.
bool applies(const Setting& setting, const MeasuredCall& call) {
  const bool registers = std::strstr(call.name, "nit") != nullptr;
  return setting.tracing == Tracing::off || setting.connection != Connection::first || registers;
}

TEST_F(Stacks, OfAnyCallAreWithinThePromised16Kilobytes) {
  uint32_t deepest = 0;
  ASSERT_TRUE(engine_.start());
  std::printf("| call |");
  for (const Setting& setting : SETTINGS) std::printf(" %s |", setting.name);
  std::printf("\n");
  for (const MeasuredCall& call : measuredCalls()) {
    std::printf("| %s |", call.name);
    for (const Setting& setting : SETTINGS) {
      if (!applies(setting, call)) {
        std::printf(" |");
        continue;
      }
      const uint32_t depth = measure(setting, call);
      std::printf(" %u |", depth);
      EXPECT_GE(PROMISED, depth) << call.name << ", " << setting.name;
      deepest = std::max(deepest, depth);
    }
    std::printf("\n");
  }
  counted("bytes of stack that the deepest call uses", deepest);
}

// ---- code sets ----------------------------------------------------------------------------------

/// Whose converters keep much state, read tables or are made of others, and some plain ones.
constexpr const char* CODESETS[] = {"UTF-8",
                                    "US-ASCII",
                                    "ISO-8859-1",
                                    "windows-1252",
                                    "ISO-2022-JP",
                                    "ISO-2022-JP-2",
                                    "ISO-2022-KR",
                                    "GB18030",
                                    "GBK",
                                    "ISO-2022-CN",
                                    "HZ-GB-2312",
                                    "Big5-HKSCS",
                                    "Shift_JIS",
                                    "EUC-JP",
                                    "EUC-KR",
                                    "EUC-TW",
                                    "UTF-7",
                                    "UTF-16",
                                    "UTF-16BE",
                                    "UTF-16LE",
                                    "UTF-32",
                                    "CESU-8",
                                    "SCSU",
                                    "BOCU-1",
                                    "LMBCS-1",
                                    "ibm-1390",
                                    "ibm-37",
                                    "IMAP-mailbox-name",
                                    "TIS-620",
                                    "KOI8-R",
                                    "ISCII,version=0",
                                    "x11-compound-text"};

const char* codeset = nullptr;

void openCodeset() {
  if (SetExpectedCodeset(codeset) != 0) _exit(3);
}

void convertLongNames() {
  (void)arm_getid(5, longName().c_str(), "detail", 0, nullptr, 0);
  (void)arm_getid(5, unconvertibleName().c_str(), "detail", 0, nullptr, 0);
}

TEST_F(Stacks, OfConversionsFromAnyCodeSetAreWithinThePromised16Kilobytes) {
  uint32_t deepest = 0;
  ASSERT_TRUE(engine_.start());
  for (const char* name : CODESETS) {
    board_->depth.store(0);
    const pid_t process = forkChild([&] {
      codeset = name;
      // An error of the conversion is traced from its depth.
      setTracing(Tracing::xml);
      runOnStack(PAINTED_STACK, [] { (void)w_ArmInit(0, "application", "user", 0, nullptr, 0); });
      runOnStack(PAINTED_STACK, [&] {
        const auto opening = static_cast<uint32_t>(depthOf(openCodeset));
        board_->depth.store(std::max(opening, static_cast<uint32_t>(depthOf(convertLongNames))));
      });
      return 0;
    });
    ASSERT_EQ(0, exitCodeOf(process)) << name;
    // It has come to a conversion.
    EXPECT_LT(12000U, board_->depth.load()) << name;
    EXPECT_GE(PROMISED, board_->depth.load()) << name;
    deepest = std::max(deepest, board_->depth.load());
    (void)engine_.reclaim();
  }
  counted("code sets whose conversion was measured", std::size(CODESETS));
  counted("bytes of stack that the deepest conversion uses", deepest);
}

// ---- small stacks -------------------------------------------------------------------------------

TEST_F(Stacks, OfTheSmallestSizeAnd16KiBAreEnoughForEveryCall) {
  constexpr size_t SIZE = 16384 + 16 * 1024;
  unsigned calls = 0;
  ASSERT_TRUE(engine_.start());
  for (const Setting& setting : SETTINGS) {
    if (setting.tracing != Tracing::off && setting.connection == Connection::first) continue;
    for (const MeasuredCall& call : measuredCalls()) {
      callInAProcess(setting, call, SIZE, call.call);
      ++calls;
    }
  }
  counted("calls on 32 KiB of stack", calls);
}

// ---- memory -------------------------------------------------------------------------------------

unsigned allocationsOf(void (*call)()) {
  allocations = 0;
  counting = true;
  call();
  counting = false;
  return allocations;
}

TEST(CountedAllocations, AreSeen) {
  EXPECT_EQ(1U, allocationsOf([] { free(malloc(1)); }));
}

void expectNoAllocations(const char* what) {
  unsigned calls = 0;
  for (const MeasuredCall& call : measuredCalls()) {
    if (!call.measures) continue;
    call.call();
    for (int i = 0; i < 100; ++i, ++calls) {
      ASSERT_EQ(0U, allocationsOf(call.call)) << call.name;
    }
  }
  counted(what, calls);
}

TEST_F(Stacks, AreAllThatMeasurementCallsUse) {
  ASSERT_TRUE(engine_.start());
  ASSERT_EQ(101, arm_init("application", "user", 0, nullptr, 0));
  expectNoAllocations("measurement calls that allocated nothing");
}

// Without TZ the C library looks for the machine's zone at each line, and may allocate when there
// is none.
TEST_F(Stacks, AreAllThatTracingMeasurementCallsUse) {
  setenv("TZ", "UTC", 1);
  setTracing(Tracing::xml);
  ASSERT_TRUE(engine_.start());
  ASSERT_EQ(101, arm_init("application", "user", 0, nullptr, 0));
  expectNoAllocations("traced measurement calls that allocated nothing");
}

}  // namespace
}  // namespace armtest
