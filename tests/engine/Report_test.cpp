#include "registry/Report.h"

#include <gtest/gtest.h>

namespace {

using armengine::makeReport;
using armengine::readableTime;
using armengine::Registry;
using armengine::Started;

constexpr uint64_t MILLISECOND = 1000000;

void startAndStop(Registry* registry, int32_t id, int32_t status, uint64_t duration) {
  const Started started = registry->start(id, {}, 0);
  EXPECT_EQ(0, registry->stop(started.result, status, duration));
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
  const int32_t shop = registry.addApplication("a\x1B[31mb\nc");
  registry.addClass(shop, "x\xC2\x9Bz", "");
  EXPECT_NE(std::string::npos, makeReport(registry).find("\na?[31mb?c    x?z  "));
}

TEST(Report, LongNamesAreCutBetweenCharacters) {
  Registry registry(1);
  std::string name;
  for (int i = 0; i < 41; ++i) name += "\xC3\xA4";
  registry.addClass(registry.addApplication("shop"), name, "");
  EXPECT_NE(std::string::npos, makeReport(registry).find(" " + name.substr(0, 37 * 2) + "...  "));
}

TEST(Report, EmptyRegistryHasNoTable) {
  EXPECT_EQ("no transaction class was registered\n", makeReport(Registry(1)));
}

TEST(Report, TableIsAligned) {
  Registry registry(1);
  const int32_t shop = registry.addApplication("shop");
  const int32_t order = registry.addClass(shop, "order", "");
  const int32_t refund = registry.addClass(shop, "r\xC3\xBC\x63kgabe", "");
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
  const int32_t order = registry.addClass(registry.addApplication("shop"), "order", "");
  startAndStop(&registry, order, 0, MILLISECOND);
  EXPECT_EQ(std::string::npos, makeReport(registry).find("unknown"));
  startAndStop(&registry, order, 9, MILLISECOND);
  EXPECT_NE(std::string::npos, makeReport(registry).find("unknown"));
}

TEST(Report, OpenInstancesAreMentioned) {
  Registry registry(1);
  const int32_t order = registry.addClass(registry.addApplication("shop"), "order", "");
  (void)registry.start(order, {}, 0);
  EXPECT_NE(std::string::npos, makeReport(registry).find("never stopped: 1\n"));
}

TEST(Report, ParentIsDrawnWithItsChildren) {
  Registry registry(1);
  const int32_t shop = registry.addApplication("shop");
  const int32_t order = registry.addClass(shop, "order", "");
  const int32_t query = registry.addClass(shop, "query", "");
  const Started top = registry.start(order, {}, 0);
  const Started first = registry.start(query, {top.correlator}, 0);
  const Started second = registry.start(query, {top.correlator}, 0);
  const Started below = registry.start(query, {first.correlator}, 0);
  EXPECT_EQ(0, registry.stop(below.result, 0, MILLISECOND));
  EXPECT_EQ(0, registry.stop(first.result, 2, 3 * MILLISECOND));
  EXPECT_EQ(0, registry.stop(top.result, 0, 7 * MILLISECOND));
  (void)second;
  const std::string report = makeReport(registry);
  const std::string drawing =
      "shop: order  7.00 ms  good\n"
      "|- query  3.00 ms  failed\n"
      "|  `- query  1.00 ms  good\n"
      "`- query  open\n";
  EXPECT_EQ(drawing, report.substr(report.size() - drawing.size())) << report;
}

TEST(Report, ChildrenThatAreNotDrawnAreCounted) {
  Registry registry(1);
  const int32_t order = registry.addClass(registry.addApplication("shop"), "order", "");
  const Started top = registry.start(order, {}, 0);
  for (int i = 0; i < 20; ++i) {
    const Started child = registry.start(order, {top.correlator}, 0);
    EXPECT_EQ(0, registry.stop(child.result, 0, MILLISECOND));
  }
  EXPECT_EQ(0, registry.stop(top.result, 0, MILLISECOND));
  EXPECT_NE(std::string::npos, makeReport(registry).find("`- and 12 more\n"));
}

}  // namespace
