// arm.hpp: which calls its objects make, with which bytes, and with which completion status.

#include <arm.hpp>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "CallTest.h"

namespace armtest {
namespace {

constexpr int32_t INIT = 1;
constexpr int32_t GETID = 2;
constexpr int32_t START = 3;
constexpr int32_t UPDATE = 4;
constexpr int32_t STOP = 5;
constexpr int32_t END = 6;

// Answers of the scripted engine: 100 + type.
constexpr int32_t APPLICATION = 101;
constexpr int32_t CLASS = 102;
constexpr int32_t HANDLE = 103;

static_assert(!std::is_copy_constructible_v<arm::application>);
static_assert(!std::is_copy_assignable_v<arm::application>);
static_assert(std::is_nothrow_move_constructible_v<arm::application>);
static_assert(std::is_nothrow_move_assignable_v<arm::application>);
static_assert(!std::is_copy_constructible_v<arm::transaction>);
static_assert(!std::is_copy_assignable_v<arm::transaction>);
static_assert(std::is_nothrow_move_constructible_v<arm::transaction>);
static_assert(std::is_nothrow_move_assignable_v<arm::transaction>);
static_assert(std::is_nothrow_destructible_v<arm::transaction>);
static_assert(std::is_trivially_copyable_v<arm::transaction_class>);
static_assert(sizeof(arm::application) == 4 && sizeof(arm::transaction_class) == 4);
static_assert(sizeof(arm::transaction) == 12);

class ArmHpp : public CallsWithEngine {
 protected:
  void SetUp() override {
    CallsWithEngine::SetUp();
    class_.emplace(arm::application("shop"), "order");
  }
  const arm::transaction_class& order() const { return *class_; }
  std::vector<int32_t> typesTaken() const {
    std::vector<int32_t> types;
    for (uint32_t i = 0; i < engine_.taken(); ++i) {
      types.push_back(static_cast<int32_t>(word(engine_.record(i), 8)));
    }
    return types;
  }
  /// Completion statuses of all stops.
  std::vector<uint32_t> statuses() const {
    std::vector<uint32_t> all;
    for (uint32_t i = 0; i < engine_.taken(); ++i) {
      const Bytes record = engine_.record(i);
      if (word(record, 8) == STOP) all.push_back(word(record, 16));
    }
    return all;
  }

 private:
  std::optional<arm::transaction_class> class_;
};

using Types = std::vector<int32_t>;
using Statuses = std::vector<uint32_t>;

TEST_F(ArmHpp, ApplicationAndClassAreRegisteredAndTheApplicationEndsOnce) {
  EXPECT_EQ((Types{INIT, GETID, END}), typesTaken());
  EXPECT_EQ("shop", textAt(engine_.record(0), 12, 128));
  EXPECT_EQ(static_cast<uint32_t>(APPLICATION), word(engine_.record(1), 12));
  EXPECT_EQ("order", textAt(engine_.record(1), 16, 3620));
  EXPECT_EQ(static_cast<uint32_t>(APPLICATION), word(engine_.record(2), 12));
  EXPECT_EQ(CLASS, order().id());
}

TEST_F(ArmHpp, MovedApplicationEndsOnce) {
  {
    arm::application first("a");
    arm::application second(std::move(first));
    EXPECT_EQ(APPLICATION, second.id());
    arm::application third("b");
    third = std::move(second);
    EXPECT_EQ((Types{INIT, GETID, END, INIT, INIT, END}), typesTaken());
    arm::application& same = third;
    third = std::move(same);
    EXPECT_TRUE(static_cast<bool>(third));
  }
  EXPECT_EQ((Types{INIT, GETID, END, INIT, INIT, END, END}), typesTaken());
}

TEST_F(ArmHpp, EndedApplicationIsNotEndedAgain) {
  arm::application application("a");
  EXPECT_EQ(106, application.end());
  EXPECT_EQ(-1, application.end());
  EXPECT_FALSE(static_cast<bool>(application));
  EXPECT_EQ((Types{INIT, GETID, END, INIT, END}), typesTaken());
}

TEST_F(ArmHpp, DescriptionsOfMetricsGoWithTheClass) {
  arm::metric_descriptions metrics;
  metrics.describe<1, arm::metric_type::counter64>("bytes")
      .describe<6, arm::metric_type::string8>(std::string(50, 'n'))
      .describe<7, arm::metric_type::string32>("region");
  const arm::transaction_class described(arm::application("shop"), "order", "detail", metrics);
  // Its application has ended since.
  const Bytes record = engine_.record(engine_.taken() - 2);
  EXPECT_EQ(CLASS, described.id());
  EXPECT_EQ("detail", textAt(record, 3636, 128));
  EXPECT_EQ(344U, word(record, 4112));
  Bytes block(344, 0);
  putWord(block, 0, 101);
  block[5] = 0x80 | 0x04 | 0x02;
  putWord(block, 8, 2);
  putText(block, 12, "bytes");
  putWord(block, 8 + 5 * 48, 9);
  putText(block, 12 + 5 * 48, std::string(43, 'n'));
  putWord(block, 8 + 6 * 48, 10);
  putText(block, 12 + 6 * 48, "region");
  expectSameBytes(block, slice(record, 3768, 344));
}

// ---- how a transaction ends ---------------------------------------------------------------------

TEST_F(ArmHpp, TransactionStartsAtOnceAndStopsGood) {
  {
    const arm::transaction measured(order());
    EXPECT_EQ(HANDLE, measured.handle());
    EXPECT_TRUE(static_cast<bool>(measured));
    EXPECT_EQ((Types{INIT, GETID, END, START}), typesTaken());
    EXPECT_EQ(static_cast<uint32_t>(CLASS), word(engine_.last(), 12));
    EXPECT_EQ(0U, word(engine_.last(), 276));
  }
  EXPECT_EQ((Types{INIT, GETID, END, START, STOP}), typesTaken());
  EXPECT_EQ(static_cast<uint32_t>(HANDLE), word(engine_.last(), 12));
  EXPECT_EQ(0U, word(engine_.last(), 16));
  EXPECT_EQ(0U, word(engine_.last(), 280));
}

void leaveByException(const arm::transaction_class& of, const char* mark) {
  try {
    arm::transaction measured(of);
    if (std::strcmp(mark, "abort") == 0) measured.abort();
    if (std::strcmp(mark, "good") == 0) measured.set_status(arm::status::good);
    throw std::runtime_error("the work failed");
  } catch (const std::runtime_error&) {
  }
}

TEST_F(ArmHpp, TransactionLeftByAnExceptionHasFailedUnlessAStatusWasSet) {
  leaveByException(order(), "");
  leaveByException(order(), "abort");
  leaveByException(order(), "good");
  EXPECT_EQ((Statuses{2, 1, 0}), statuses());
}

/// Measures its own work in its destructor.
struct Cleaner {
  explicit Cleaner(const arm::transaction_class& of_class) : of(of_class) {}
  ~Cleaner() { const arm::transaction measured(of); }
  const arm::transaction_class& of;
};

TEST_F(ArmHpp, TransactionOfACleanUpDuringAnExceptionIsGood) {
  try {
    const arm::transaction outer(order());
    const Cleaner cleaner(order());
    throw std::runtime_error("the work failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ((Statuses{0, 2}), statuses());
}

TEST_F(ArmHpp, StatusThatWasSetIsTheOneItStopsWith) {
  {
    arm::transaction measured(order());
    measured.fail();
  }
  {
    arm::transaction measured(order());
    measured.abort();
  }
  {
    arm::transaction measured(order());
    measured.fail();
    measured.set_status(arm::status::good);
  }
  EXPECT_EQ((Statuses{2, 1, 0}), statuses());
}

TEST_F(ArmHpp, StoppedTransactionIsNotStoppedAgain) {
  {
    arm::transaction measured(order());
    measured.fail();
    EXPECT_EQ(105, measured.stop());
    EXPECT_EQ(-1, measured.stop());
    EXPECT_EQ(-1, measured.update());
    arm::transaction other(order());
    other.fail();
    EXPECT_EQ(105, other.stop(arm::status::aborted));
  }
  EXPECT_EQ((Statuses{2, 1}), statuses());
}

TEST_F(ArmHpp, MovedTransactionStopsOnceWithItsStatus) {
  {
    arm::transaction first(order());
    first.abort();
    arm::transaction second(std::move(first));
    arm::transaction third(order());
    third = std::move(second);
    EXPECT_EQ((Statuses{0}), statuses());
    EXPECT_EQ(HANDLE, third.handle());
    EXPECT_EQ(-1, second.handle());
  }
  EXPECT_EQ((Statuses{0, 1}), statuses());
}

TEST_F(ArmHpp, NothingIsAskedForWhatIsNotRegistered) {
  const uint32_t before = engine_.taken();
  engine_.reply(INIT, -7);
  {
    const arm::application refused("a");
    EXPECT_FALSE(static_cast<bool>(refused));
    const arm::transaction_class unknown(refused, "order");
    EXPECT_EQ(-7, unknown.id());
    arm::transaction measured(unknown);
    EXPECT_EQ(-7, measured.handle());
    EXPECT_FALSE(static_cast<bool>(measured));
    EXPECT_EQ(-7, measured.update());
    EXPECT_EQ(-7, measured.update("text"));
    EXPECT_EQ(-7, measured.stop());
  }
  EXPECT_EQ(before + 1, engine_.taken());
}

TEST_F(ArmHpp, HandleZeroIsStopped) {
  engine_.reply(START, 0);
  { const arm::transaction measured(order()); }
  EXPECT_EQ((Statuses{0}), statuses());
}

TEST_F(ArmHpp, WithoutAnEngineEveryObjectDoesNothing) {
  engine_.quit();
  const arm::application application("a");
  EXPECT_EQ(-2, application.id());
  const arm::transaction_class of(application, "order");
  EXPECT_EQ(-2, of.id());
  arm::data_block block;
  block.want_correlator();
  arm::transaction measured(of, block);
  EXPECT_EQ(-2, measured.handle());
  EXPECT_FALSE(block.correlator());
}

// ---- blocks -------------------------------------------------------------------------------------

TEST_F(ArmHpp, MetricsLieAtTheirOffsetsAndAreMarked) {
  arm::data_block block;
  block.counter32<1>(-2)
      .counter64<2>(0x1122334455667788)
      .gauge_ratio32<3>(7, 9)
      .string8<4>("more than eight")
      .id64<6>(-1)
      .string32("a region");
  const arm::transaction measured(order(), block);
  Bytes expected(256, 0);
  putWord(expected, 0, 1);
  expected[5] = 0x80 | 0x40 | 0x20 | 0x10 | 0x04 | 0x02;
  putWord(expected, 8, -2);
  putWord(expected, 16, 0x55667788);
  putWord(expected, 20, 0x11223344);
  putWord(expected, 24, 7);
  putWord(expected, 28, 9);
  putText(expected, 32, "more tha");
  putWord(expected, 48, -1);
  putWord(expected, 52, -1);
  putText(expected, 56, "a region");
  EXPECT_EQ(256U, word(engine_.last(), 276));
  expectSameBytes(expected, slice(engine_.last(), 20, 256));
}

template <typename Block>
Bytes madeInUsedMemory() {
  alignas(Block) uint8_t memory[sizeof(Block)];
  std::memset(memory, 0xA5, sizeof memory);
  const Block* block = new (memory) Block();
  const auto* raw = reinterpret_cast<const uint8_t*>(&block->raw());
  return Bytes(raw, raw + sizeof block->raw());
}

TEST_F(ArmHpp, NewBlocksHaveNothingOfTheMemoryThatTheyAreMadeIn) {
  Bytes empty(256, 0);
  putWord(empty, 0, 1);
  expectSameBytes(empty, madeInUsedMemory<arm::data_block>());
  Bytes described(344, 0);
  putWord(described, 0, 101);
  expectSameBytes(described, madeInUsedMemory<arm::metric_descriptions>());
  expectSameBytes(Bytes(168, 0), madeInUsedMemory<arm::correlator>());
}

TEST_F(ArmHpp, EveryTypeOfMetricHasTheBytesOfItsType) {
  const auto slot = [](const arm::data_block& block) {
    return Bytes(block.raw().metric[1].bytes, block.raw().metric[1].bytes + 8);
  };
  arm::data_block block;
  EXPECT_EQ((Bytes{5, 0, 0, 0, 0, 0, 0, 0}), slot(block.counter32<2>(5)));
  EXPECT_EQ((Bytes{6, 0, 0, 0, 0, 0, 0, 0}), slot(block.counter64<2>(6)));
  EXPECT_EQ((Bytes{7, 0, 0, 0, 2, 0, 0, 0}), slot(block.counter_ratio32<2>(7, 2)));
  EXPECT_EQ((Bytes{8, 0, 0, 0, 0, 0, 0, 0}), slot(block.gauge32<2>(8)));
  EXPECT_EQ((Bytes{255, 255, 255, 255, 255, 255, 255, 255}), slot(block.gauge64<2>(-1)));
  EXPECT_EQ((Bytes{9, 0, 0, 0, 3, 0, 0, 0}), slot(block.gauge_ratio32<2>(9, 3)));
  EXPECT_EQ((Bytes{10, 0, 0, 0, 0, 0, 0, 0}), slot(block.id32<2>(10)));
  EXPECT_EQ((Bytes{0, 0, 0, 0, 1, 0, 0, 0}), slot(block.id64<2>(std::int64_t{1} << 32)));
  EXPECT_EQ((Bytes{'a', 'b', 0, 0, 0, 0, 0, 0}), slot(block.string8<2>("ab")));
  EXPECT_EQ(0x40, block.raw().flags[1]);
  EXPECT_EQ(0, block.clear_metrics().raw().flags[1]);
}

TEST_F(ArmHpp, UpdatesCarryNothingMetricsOrText) {
  const arm::transaction measured(order());
  EXPECT_EQ(104, measured.update());
  EXPECT_EQ(0U, word(engine_.last(), 1044));
  arm::data_block block;
  EXPECT_EQ(104, measured.update(block.gauge32<1>(3)));
  EXPECT_EQ(256U, word(engine_.last(), 1044));
  EXPECT_EQ(3U, word(engine_.last(), 28));
  EXPECT_EQ(104, measured.update(std::string(2000, 'x')));
  EXPECT_EQ(1024U, word(engine_.last(), 1044));
  EXPECT_EQ(2U, word(engine_.last(), 20));
  EXPECT_EQ(std::string(1020, 'x'), textAt(engine_.last(), 24, 1020));
  EXPECT_EQ(104, measured.update("short"));
  EXPECT_EQ("short", textAt(engine_.last(), 24, 1020));
}

TEST_F(ArmHpp, LastMetricsGoWithTheStop) {
  arm::transaction measured(order());
  arm::data_block block;
  EXPECT_EQ(105, measured.stop(arm::status::failed, block.counter32<1>(4)));
  EXPECT_EQ(256U, word(engine_.last(), 280));
  EXPECT_EQ(4U, word(engine_.last(), 32));
  EXPECT_EQ((Statuses{2}), statuses());
}

// ---- correlators --------------------------------------------------------------------------------

TEST_F(ArmHpp, CorrelatorIsHandedBackOnRequestOnly) {
  const Correlator given = makeCorrelator(0x11);
  engine_.replyWithCorrelator(START, HANDLE, 1, given);
  arm::data_block block;
  { const arm::transaction unasked(order(), block); }
  EXPECT_FALSE(block.correlator());
  const arm::transaction measured(order(), block.want_correlator());
  ASSERT_TRUE(block.correlator());
  EXPECT_EQ(0, std::memcmp(given.data(), block.correlator()->raw().bytes, 168));
  EXPECT_TRUE(static_cast<bool>(*block.correlator()));
}

TEST_F(ArmHpp, ChildCarriesTheCorrelatorOfItsParent) {
  arm_correlator_t raw = {};
  raw.bytes[1] = 168;
  raw.bytes[167] = 9;
  const arm::transaction child(order(), arm::correlator(raw));
  EXPECT_EQ(0x80, engine_.last()[24]);
  EXPECT_EQ(Bytes(raw.bytes, raw.bytes + 168), slice(engine_.last(), 20 + 88, 168));
  const arm::transaction orphan(order(), arm::correlator());
  EXPECT_EQ(0, engine_.last()[24]);
}

TEST_F(ArmHpp, IgnoredTransactionIsNoErrorAndPostsNothing) {
  arm_correlator_t raw = {};
  raw.bytes[1] = 168;
  raw.bytes[109] = 1;
  const uint32_t before = engine_.taken();
  arm::transaction child(order(), arm::correlator(raw));
  EXPECT_EQ(IGNOREID, child.handle());
  EXPECT_FALSE(static_cast<bool>(child));
  EXPECT_EQ(0, child.update());
  EXPECT_EQ(0, child.stop());
  EXPECT_EQ(before, engine_.taken());
}

arm::correlator patterned() {
  arm_correlator_t raw;
  for (size_t i = 0; i < sizeof raw.bytes; ++i) raw.bytes[i] = static_cast<arm_uint8_t>(i * 5 + 3);
  return arm::correlator(raw);
}

TEST(ArmHppCorrelator, TextFormIsLowerCaseHexadecimalAndComesBack) {
  const arm::correlator correlator = patterned();
  const arm::correlator::text text = correlator.hex();
  EXPECT_EQ(336U, text.view().size());
  EXPECT_EQ(336U, std::strlen(text.c_str()));
  EXPECT_EQ("03080d", text.view().substr(0, 6));
  EXPECT_EQ(std::string::npos, text.view().find_first_not_of("0123456789abcdef"));
  EXPECT_EQ(correlator, *arm::correlator::from_hex(text.view()));
  EXPECT_NE(correlator, arm::correlator());
}

TEST(ArmHppCorrelator, ShorterTextsAndCapitalDigitsAreRead) {
  const auto correlator = arm::correlator::from_hex("0004C1fF");
  ASSERT_TRUE(correlator);
  EXPECT_EQ(0xC1, correlator->raw().bytes[2]);
  EXPECT_EQ(0xFF, correlator->raw().bytes[3]);
  EXPECT_EQ(0, correlator->raw().bytes[109]);
  EXPECT_TRUE(static_cast<bool>(*correlator));
}

TEST(ArmHppCorrelator, OtherTextsAreNone) {
  for (const std::string& text :
       {std::string(), std::string("0004c1"), std::string("0004c1ff0"), std::string("0004c1fg"),
        std::string(" 004c1ff"), std::string(338, '0')}) {
    EXPECT_FALSE(arm::correlator::from_hex(text)) << text;
  }
}

TEST(ArmHppCorrelator, EnvironmentHandsItOver) {
  arm::correlator::clear_environment();
  EXPECT_FALSE(arm::correlator::from_environment());
  EXPECT_TRUE(patterned().to_environment());
  EXPECT_EQ(patterned(), *arm::correlator::from_environment());
  EXPECT_STREQ(patterned().hex().c_str(), std::getenv("ARM_CORRELATOR"));
  arm::data_block block;
  EXPECT_EQ(0x80, block.child_of_environment().raw().flags[0]);
  arm::correlator::clear_environment();
  EXPECT_EQ(0, block.child_of_environment().raw().flags[0]);
  EXPECT_EQ(0, block.raw().correlator.bytes[0]);
}

}  // namespace
}  // namespace armtest
