// What the page keeps of finished instances, with a clock of the test's own.

#include "recent/RecentTransactions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "arm/TArmMessage.h"
#include "base/Time.h"

namespace {

using armengine::ApplicationInfo;
using armengine::ClassInfo;
using armengine::DurationCounts;
using armengine::DurationSteps;
using armengine::Event;
using armengine::Finished;
using armengine::keyOf;
using armengine::Outcome;
using armengine::RecentTransactions;
using armengine::shortened;
using armengine::TraceId;

using armengine::SECOND;
constexpr uint64_t MS = 1'000'000;
constexpr uint64_t BEGIN = 1'700'000'000 * SECOND;

std::shared_ptr<const ClassInfo> classNamed(const std::string& application,
                                            const std::string& name) {
  auto owner = std::make_shared<ApplicationInfo>();
  owner->name = application;
  auto info = std::make_shared<ClassInfo>();
  info->application = owner;
  info->name = name;
  return info;
}

class Recent : public ::testing::Test {
 protected:
  /// An instance that stops now.
  Event stopOf(const std::shared_ptr<const ClassInfo>& of, uint64_t duration, uint8_t trace = 0,
               Outcome outcome = Outcome::good) {
    Event event;
    event.type = ARM_MSG_STOP;
    event.time = now_;
    event.process = 7;
    event.subject.tran_class = of;
    event.subject.application = of->application;
    event.subject.handle = ++handle_;
    event.id = handle_;
    event.subject.start = now_ - duration;
    event.subject.duration = duration;
    event.subject.outcome = outcome;
    event.subject.context.trace_id[0] = trace;
    event.subject.context.trace_id[1] = 1;
    const auto number = static_cast<uint32_t>(handle_);
    for (unsigned i = 0; i < 4; ++i) {
      event.subject.context.span_id[i] = static_cast<uint8_t>(number >> (8 * i));
    }
    return event;
  }
  void finish(const std::shared_ptr<const ClassInfo>& of, uint64_t duration, uint8_t trace = 0,
              Outcome outcome = Outcome::good) {
    recent_.consume(stopOf(of, duration, trace, outcome), {});
  }
  DurationCounts together(uint64_t seconds) {
    return recent_.since(now_ - seconds * SECOND).at(std::nullopt);
  }
  static TraceId traceId(uint8_t trace) {
    TraceId id = {};
    id[0] = trace;
    id[1] = 1;
    return id;
  }

  uint64_t now_ = BEGIN;
  RecentTransactions recent_{[this] { return now_; }};
  std::shared_ptr<const ClassInfo> order_ = classNamed("shop", "order");

 private:
  int32_t handle_ = 0;
};

TEST(DurationSteps, EveryDurationLiesInItsStep) {
  EXPECT_EQ(0U, DurationSteps::stepOf(0));
  EXPECT_EQ(0U, DurationSteps::stepOf(1023));
  EXPECT_EQ(1U, DurationSteps::stepOf(1024));
  EXPECT_EQ(2U, DurationSteps::stepOf(1280));
  EXPECT_EQ(108U, DurationSteps::stepOf((uint64_t{1} << 37) - 1));
  EXPECT_EQ(109U, DurationSteps::stepOf(uint64_t{1} << 37));
  EXPECT_EQ(109U, DurationSteps::stepOf(UINT64_MAX));
  for (unsigned step = 1; step < DurationSteps::COUNT; ++step) {
    EXPECT_EQ(step, DurationSteps::stepOf(DurationSteps::beginOf(step)));
    EXPECT_EQ(step - 1, DurationSteps::stepOf(DurationSteps::beginOf(step) - 1));
  }
}

TEST(DurationSteps, PercentilesAreAtMostAQuarterOff) {
  std::mt19937_64 random(7);
  std::lognormal_distribution<double> times(std::log(5e6), 1.5);
  DurationCounts counts;
  std::vector<uint64_t> exact;
  for (int i = 0; i < 10007; ++i) {
    exact.push_back(static_cast<uint64_t>(times(random)));
    counts.add(exact.back(), i % 10 == 0);
  }
  std::sort(exact.begin(), exact.end());
  for (const unsigned percent : {1U, 50U, 95U, 99U, 100U}) {
    const std::size_t rank = (exact.size() * percent + 99) / 100;
    const auto expected = static_cast<double>(exact[rank - 1]);
    EXPECT_NEAR(expected, static_cast<double>(counts.percentile(percent)), expected / 4) << percent;
  }
  EXPECT_EQ(exact.back(), counts.percentile(100));
  EXPECT_EQ(exact.back(), counts.maximum);
  EXPECT_EQ(10007U, counts.total);
  EXPECT_EQ(1001U, counts.errors);
}

TEST(DurationSteps, OneDurationIsExactAndNoneIsZero) {
  DurationCounts counts;
  EXPECT_EQ(0U, counts.percentile(99));
  counts.add(1234567, false);
  EXPECT_EQ(1234567U, counts.percentile(50));
  EXPECT_EQ(1234567U, counts.percentile(99));
}

TEST(ShortenedNames, AreCutBetweenCharactersAndOnlyWhenTheyAreTooLong) {
  EXPECT_EQ("order", shortened("order", 5));
  EXPECT_EQ("or\xE2\x80\xA6", shortened("orders", 5));
  EXPECT_EQ("\xC3\xA4\xE2\x80\xA6", shortened("\xC3\xA4\xC3\xB6\xC3\xBC", 5));
  EXPECT_EQ("a\xE2\x80\xA6", shortened("a\xE2\x82\xAC\xE2\x82\xAC", 5));
}

TEST(ClassKeys, TellNamesApart) {
  EXPECT_EQ(keyOf("shop", "order"), keyOf("shop", "order"));
  EXPECT_NE(keyOf("shop", "order"), keyOf("shopo", "rder"));
  EXPECT_NE(keyOf("shop", ""), keyOf("", "shop"));
}

TEST_F(Recent, CountsGoIntoTheSlotsOfTwoSecondsAndLeaveAfterFiveMinutes) {
  for (int i = 0; i < 3; ++i) finish(order_, 5 * MS);
  now_ += 10 * SECOND;
  finish(order_, 7 * MS, 0, Outcome::failed);
  finish(classNamed("shop", "search"), 9 * MS, 0, Outcome::aborted);
  const auto slots = recent_.history(keyOf("shop", "order"));
  ASSERT_TRUE(slots);
  ASSERT_EQ(2U, slots->size());
  EXPECT_EQ(BEGIN / SECOND / 2, slots->at(0).number);
  EXPECT_EQ(3U, slots->at(0).counts.total);
  EXPECT_EQ(0U, slots->at(0).counts.errors);
  EXPECT_EQ(BEGIN / SECOND / 2 + 5, slots->at(1).number);
  EXPECT_EQ(1U, slots->at(1).counts.total);
  EXPECT_EQ(1U, slots->at(1).counts.errors);
  EXPECT_EQ(7 * MS, slots->at(1).counts.maximum);
  EXPECT_EQ(5U, together(300).total);
  EXPECT_EQ(2U, together(300).errors);
  EXPECT_EQ(2U, together(4).total);
  now_ += 289 * SECOND;
  EXPECT_EQ(5U, together(300).total);
  now_ += 2 * SECOND;
  EXPECT_EQ(2U, together(300).total) << "the first slot is over";
  now_ += 300 * SECOND;
  EXPECT_EQ(0U, together(300).total);
  EXPECT_TRUE(recent_.history(std::nullopt)->empty());
  EXPECT_FALSE(recent_.history(keyOf("shop", "unheard of")));
}

TEST_F(Recent, ClockThatIsSetBackLosesNothing) {
  finish(order_, MS);
  now_ -= 3600 * SECOND;
  finish(order_, MS);
  const auto slots = recent_.history(std::nullopt);
  ASSERT_EQ(1U, slots->size());
  EXPECT_EQ(2U, slots->at(0).counts.total);
}

TEST_F(Recent, AbandonedInstancesAreShownButHaveNoResponseTime) {
  Event event = stopOf(order_, 4 * SECOND);
  event.type = armengine::EVENT_ABANDONED;
  recent_.consume(event, {});
  EXPECT_EQ(0U, together(300).total);
  const auto slow = recent_.slowest(0, std::nullopt, 10);
  ASSERT_EQ(1U, slow.size());
  EXPECT_TRUE(slow[0].abandoned);
}

TEST_F(Recent, OnlyEndsOfInstancesCount) {
  Event event = stopOf(order_, MS);
  event.result = -103;
  recent_.consume(event, {});
  event.result = 0;
  event.type = ARM_MSG_UPDATE;
  recent_.consume(event, {});
  event.type = ARM_MSG_TRANS_REPORT;
  recent_.consume(event, {});
  EXPECT_EQ(0U, together(300).total) << "a report on an open instance is its progress";
  event.id = 4711;
  recent_.consume(event, {});
  EXPECT_EQ(1U, together(300).total) << "a report for a class is an instance of its own";
  event.type = ARM_MSG_COMPLETE_TRANS;
  event.subject.handle = 0;
  recent_.consume(event, {});
  EXPECT_EQ(1U, together(300).total) << "a completion of a class changes nothing";
}

TEST_F(Recent, SlowestAreInOrderAndOfTheWindowAndClassAskedFor) {
  const auto search = classNamed("shop", "search");
  for (uint64_t i = 1; i <= 50; ++i) finish(i % 2 == 0 ? search : order_, i * MS);
  auto slow = recent_.slowest(0, std::nullopt, 3);
  ASSERT_EQ(3U, slow.size());
  EXPECT_EQ(50 * MS, slow[0].duration);
  EXPECT_EQ(49 * MS, slow[1].duration);
  EXPECT_EQ(48 * MS, slow[2].duration);
  EXPECT_EQ("search", slow[0].of->name);
  slow = recent_.slowest(0, keyOf("shop", "order"), 100);
  ASSERT_EQ(25U, slow.size()) << "all of the last ones count, and each once";
  EXPECT_EQ(49 * MS, slow[0].duration);
  EXPECT_EQ(1 * MS, slow[24].duration);
  now_ += 20 * SECOND;
  finish(order_, 2 * MS);
  slow = recent_.slowest(now_ - 10 * SECOND, std::nullopt, 100);
  ASSERT_EQ(1U, slow.size());
  EXPECT_EQ(2 * MS, slow[0].duration);
}

TEST_F(Recent, SlowOneAndItsTraceOutliveManyQuickOnes) {
  finish(order_, 3 * MS, 9);
  finish(order_, 5 * SECOND, 9);
  recent_.flush();
  finish(order_, 2 * MS, 9);
  for (std::size_t i = 0; i < RecentTransactions::MOST_LAST + 1; ++i) finish(order_, 1000, 1);
  const auto slow = recent_.slowest(0, std::nullopt, 1);
  ASSERT_EQ(1U, slow.size());
  EXPECT_EQ(5 * SECOND, slow[0].duration);
  const auto trace = recent_.trace(traceId(9));
  EXPECT_TRUE(trace.complete);
  ASSERT_EQ(3U, trace.spans.size());
  EXPECT_EQ(5 * SECOND, trace.spans[0].duration) << "by start";
  EXPECT_EQ(3 * MS, trace.spans[1].duration);
  EXPECT_EQ(2 * MS, trace.spans[2].duration);
  // Slices are used again after five minutes: nothing of the trace is left then.
  for (int i = 0; i < 31; ++i) {
    now_ += 10 * SECOND;
    finish(order_, 1000, 1);
  }
  recent_.flush();
  EXPECT_TRUE(recent_.trace(traceId(9)).spans.empty());
}

TEST_F(Recent, TraceOfManySpansIsCutAndSaysSo) {
  for (std::size_t i = 0; i < RecentTransactions::MOST_OF_TRACE; ++i) finish(order_, 1000, 5);
  EXPECT_TRUE(recent_.trace(traceId(5)).complete);
  recent_.flush();
  EXPECT_TRUE(recent_.trace(traceId(5)).complete);
  finish(order_, 1000, 5);
  const auto trace = recent_.trace(traceId(5));
  EXPECT_FALSE(trace.complete);
  EXPECT_EQ(RecentTransactions::MOST_OF_TRACE, trace.spans.size());
}

TEST_F(Recent, TraceThatIsCutKeepsItsLongestSpans) {
  for (int i = 0; i < 3000; ++i) finish(order_, 1000, 5);
  finish(order_, 5 * SECOND, 5);
  EXPECT_EQ(5 * SECOND, recent_.trace(traceId(5)).spans[0].duration);
  recent_.flush();
  finish(order_, 6 * SECOND, 5);
  finish(order_, 999, 5);
  const auto trace = recent_.trace(traceId(5));
  EXPECT_FALSE(trace.complete);
  ASSERT_EQ(RecentTransactions::MOST_OF_TRACE, trace.spans.size());
  EXPECT_EQ(6 * SECOND, trace.spans[0].duration);
  EXPECT_EQ(5 * SECOND, trace.spans[1].duration);
  for (const Finished& span : trace.spans) EXPECT_GE(span.duration, 1000U);
}

TEST_F(Recent, SavedSpansTogetherAreBounded) {
  constexpr std::size_t EACH = 900;
  for (uint8_t trace = 1; trace <= 100; ++trace) {
    for (std::size_t i = 0; i < EACH; ++i) finish(order_, 1000, trace);
    finish(order_, SECOND + trace * MS, trace);
    recent_.flush();
    now_ += SECOND;
  }
  std::size_t spans = 0;
  for (uint8_t trace = 1; trace <= 80; ++trace) {
    const auto of_one = recent_.trace(traceId(trace)).spans;
    ASSERT_FALSE(of_one.empty());
    EXPECT_EQ(SECOND + trace * MS, of_one[0].duration) << "the slow one itself is there";
    spans += of_one.size();
  }
  EXPECT_LE(spans, RecentTransactions::MOST_SAVED + 80 * RecentTransactions::LEAST_OF_TRACE);
}

TEST_F(Recent, HistoriesAreBoundedAndIdleOnesMakeRoom) {
  constexpr std::size_t MOST = RecentTransactions::MOST_HISTORIES;
  for (std::size_t i = 0; i <= MOST; ++i) finish(classNamed("shop", std::to_string(i)), MS);
  EXPECT_EQ(MOST + 1, recent_.since(0).size()) << "with the one of all together";
  EXPECT_FALSE(recent_.history(keyOf("shop", std::to_string(MOST))));
  EXPECT_EQ(MOST + 1, together(300).total) << "all together miss nothing";
  now_ += 301 * SECOND;
  finish(classNamed("shop", std::to_string(MOST)), MS);
  EXPECT_EQ(MOST + 1, recent_.since(0).size());
  EXPECT_EQ(1U, recent_.history(keyOf("shop", std::to_string(MOST)))->size());
}

TEST_F(Recent, NamesAreShortenedAndTheirNumberIsBounded) {
  const std::string longest(3619, 'x');
  finish(classNamed("shop", longest), 5 * SECOND);
  for (int i = 0; i < 25000; ++i) finish(classNamed("shop", std::to_string(i)), 1000);
  const auto slow = recent_.slowest(0, keyOf("shop", longest), 1);
  ASSERT_EQ(1U, slow.size());
  EXPECT_EQ(512U, slow[0].of->name.size());
}

}  // namespace
