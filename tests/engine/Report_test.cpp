#include "report/Report.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "arm/TArmMessage.h"

namespace {

using armengine::Answer;
using armengine::CorrelatorBytes;
using armengine::readableTime;
using armengine::RecentTransactions;
using armengine::Registry;
using armengine::Started;

constexpr uint64_t MILLISECOND = 1000000;

std::string makeReport(const Registry& registry) {
  return armengine::makeReport(registry, RecentTransactions([] { return uint64_t{0}; }));
}

void startAndStop(Registry* registry, int32_t id, int32_t status, uint64_t duration) {
  const Started started = registry->start(id, {}, 0);
  EXPECT_EQ(0, registry->stop(started.result, status, duration).result);
}

TEST(Report, TimesAreInReadableUnits) {
  EXPECT_EQ("0 us", readableTime(0));
  EXPECT_EQ("1 us", readableTime(1000));
  EXPECT_EQ("812 us", readableTime(812000));
  EXPECT_EQ("1.00 ms", readableTime(999900));
  EXPECT_EQ("1.24 ms", readableTime(1240000));
  EXPECT_EQ("93.1 ms", readableTime(93100000));
  EXPECT_EQ("812 ms", readableTime(812000000));
  EXPECT_EQ("2.05 s", readableTime(2050000000));
  EXPECT_EQ("59.9 s", readableTime(59900000000));
  EXPECT_EQ("4 min 07 s", readableTime(247900000000));
}

TEST(Report, NamesCannotCommandATerminal) {
  Registry registry(1);
  const int32_t shop = registry.addApplication("a\x1B[31mb\nc").result;
  registry.addClass(shop, "x\xC2\x9Bz", "");
  EXPECT_NE(std::string::npos, makeReport(registry).find("\na?[31mb?c    x?z  "));
}

TEST(Report, LongNamesAreCutBetweenCharacters) {
  Registry registry(1);
  std::string name;
  for (int i = 0; i < 41; ++i) name += "\xC3\xA4";
  registry.addClass(registry.addApplication("shop").result, name, "");
  EXPECT_NE(std::string::npos, makeReport(registry).find(" " + name.substr(0, 37 * 2) + "...  "));
}

TEST(Report, EmptyRegistryHasNoTable) {
  EXPECT_EQ("no transaction class was registered\n", makeReport(Registry(1)));
}

TEST(Report, TableIsAligned) {
  Registry registry(1);
  const int32_t shop = registry.addApplication("shop").result;
  const int32_t order = registry.addClass(shop, "order", "").result;
  const int32_t refund = registry.addClass(shop, "r\xC3\xBC\x63kgabe", "").result;
  for (uint64_t duration = 1; duration <= 3; ++duration)
    startAndStop(&registry, order, 0, duration * MILLISECOND);
  startAndStop(&registry, order, 1, 4 * MILLISECOND);
  startAndStop(&registry, order, 2, 500 * MILLISECOND);
  (void)refund;
  EXPECT_EQ(
      "application  transaction class  count  good  failed  aborted      p50     p95     p99     "
      "max\n"
      "shop         order                  5     3       1        1  3.01 ms  500 ms  500 ms  500 "
      "ms\n"
      "shop         r\xC3\xBC\x63kgabe               0     0       0        0        -       -     "
      "  -       -\n",
      makeReport(registry));
}

TEST(Report, UnknownStatusesHaveAColumnWhenThereAreAny) {
  Registry registry(1);
  const int32_t order =
      registry.addClass(registry.addApplication("shop").result, "order", "").result;
  startAndStop(&registry, order, 0, MILLISECOND);
  EXPECT_EQ(std::string::npos, makeReport(registry).find("unknown"));
  startAndStop(&registry, order, 9, MILLISECOND);
  EXPECT_NE(std::string::npos, makeReport(registry).find("unknown"));
}

TEST(Report, OpenInstancesAreMentioned) {
  Registry registry(1);
  const int32_t order =
      registry.addClass(registry.addApplication("shop").result, "order", "").result;
  (void)registry.start(order, {}, 0);
  EXPECT_NE(std::string::npos, makeReport(registry).find("never stopped: 1\n"));
}

// ---- the drawing --------------------------------------------------------------------------------

class DrawingTest : public testing::Test {
 protected:
  Started start(int32_t id, const std::optional<CorrelatorBytes>& parent = std::nullopt,
                uint64_t time = 0) {
    return registry_.start(id, {parent}, time);
  }
  void stop(const Started& started, int32_t status, uint64_t time) {
    armengine::Event event;
    event.type = ARM_MSG_STOP;
    event.time = time;
    Answer answer = registry_.stop(started.result, status, time);
    EXPECT_EQ(0, answer.result);
    event.subject = answer.subject;
    recent_.consume(event, {});
  }
  std::string report() const { return armengine::makeReport(registry_, recent_); }
  /// What stands below the table; empty when nothing is drawn.
  std::string drawing() const {
    const std::string heading = "\nthe parent with most children, and its first ones:\n";
    const std::string whole = report();
    const std::size_t at = whole.find(heading);
    return at == std::string::npos ? "" : whole.substr(at + heading.size());
  }

  Registry registry_{77};
  RecentTransactions recent_{[] { return uint64_t{0}; }};
  int32_t shop_ = registry_.addApplication("shop").result;
  int32_t order_ = registry_.addClass(shop_, "order", "").result;
  int32_t query_ = registry_.addClass(shop_, "query", "").result;
};

TEST_F(DrawingTest, ParentIsDrawnWithItsChildren) {
  const Started top = start(order_);
  const Started first = start(query_, top.correlator);
  const Started second = start(query_, top.correlator);
  const Started below = start(query_, first.correlator);
  stop(below, 0, MILLISECOND);
  stop(first, 2, 3 * MILLISECOND);
  stop(top, 0, 7 * MILLISECOND);
  (void)second;
  EXPECT_EQ(
      "shop: order  7.00 ms  good\n"
      "|- query  3.00 ms  failed\n"
      "|  `- query  1.00 ms  good\n"
      "`- query  open\n",
      drawing());
}

TEST_F(DrawingTest, ChildrenAreInTheOrderOfTheirStarts) {
  const Started top = start(order_);
  const Started early = start(query_, top.correlator, MILLISECOND);
  const Started late = start(query_, top.correlator, 2 * MILLISECOND);
  stop(late, 0, 3 * MILLISECOND);
  stop(early, 0, 7 * MILLISECOND);
  stop(top, 0, 9 * MILLISECOND);
  EXPECT_EQ(
      "shop: order  9.00 ms  good\n"
      "|- query  6.00 ms  good\n"
      "`- query  1.00 ms  good\n",
      drawing());
}

TEST_F(DrawingTest, ChildrenThatAreNotDrawnAreCounted) {
  const Started top = start(order_);
  for (int i = 0; i < 20; ++i) stop(start(order_, top.correlator), 0, MILLISECOND);
  stop(top, 0, MILLISECOND);
  EXPECT_NE(std::string::npos, drawing().find("`- and 12 more\n"));
}

TEST_F(DrawingTest, TreeIsTheOneWithMostChildren) {
  for (const int children : {1, 3, 2}) {
    const Started parent = start(order_);
    for (int i = 0; i < children; ++i) stop(start(query_, parent.correlator), 0, MILLISECOND);
    stop(parent, 0, static_cast<uint64_t>(children) * MILLISECOND);
  }
  EXPECT_EQ(0U, drawing().find("shop: order  3.00 ms  good\n")) << drawing();
}

TEST_F(DrawingTest, OpenParentIsTheTreeWhenNoneHasFinished) {
  const Started parent = start(order_);
  EXPECT_EQ("", drawing());
  const Started child = start(query_, parent.correlator);
  EXPECT_EQ("shop: order  open\n`- query  open\n", drawing());
  stop(child, 0, MILLISECOND);
  EXPECT_EQ("shop: order  open\n`- query  1.00 ms  good\n", drawing());
  (void)start(query_, parent.correlator);
  const Started finished = start(order_);
  stop(start(query_, finished.correlator), 0, MILLISECOND);
  stop(finished, 0, MILLISECOND);
  EXPECT_EQ(0U, drawing().find("shop: order  1.00 ms  good\n")) << drawing();
}

TEST_F(DrawingTest, DeepChainIsDrawnToASmallDepth) {
  const Started top = start(order_);
  Started parent = top;
  for (int i = 0; i < 10000; ++i) {
    const Started child = start(query_, parent.correlator);
    if (i > 0) stop(parent, 0, MILLISECOND);
    parent = child;
  }
  stop(top, 0, MILLISECOND);
  EXPECT_EQ(
      "shop: order  1.00 ms  good\n"
      "`- query  1.00 ms  good\n"
      "   `- query  1.00 ms  good\n"
      "      `- query  1.00 ms  good\n"
      "         `- and 1 more\n",
      drawing());
}

TEST_F(DrawingTest, ParentThatCannotBeResolvedHasNoChildren) {
  const Started parent = start(order_);
  CorrelatorBytes cut = parent.correlator;
  cut[1] = 20;
  Registry other_engine(78);
  const int32_t other_shop = other_engine.addApplication("shop").result;
  const int32_t theirs = other_engine.addClass(other_shop, "order", "").result;
  for (const CorrelatorBytes& bytes :
       {cut, CorrelatorBytes(), other_engine.start(theirs, {}, 0).correlator}) {
    stop(start(query_, bytes), 0, MILLISECOND);
  }
  stop(parent, 0, MILLISECOND);
  EXPECT_EQ("", drawing());
}

TEST_F(DrawingTest, ReportIsAChild) {
  const Started parent = start(order_);
  armengine::Event event;
  event.type = ARM_MSG_TRANS_REPORT;
  event.id = query_;
  event.time = 9 * MILLISECOND;
  event.subject = registry_.report(query_, {parent.correlator}, 0, 5 * MILLISECOND).subject;
  recent_.consume(event, {});
  EXPECT_EQ("shop: order  open\n`- query  5.00 ms  good\n", drawing());
}

}  // namespace
