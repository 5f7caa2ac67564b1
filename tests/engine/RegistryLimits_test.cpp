// Limits, idle time, sampling, user metrics and abandoned instances.

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "armext.h"
#include "base/Time.h"
#include "registry/Registry.h"

namespace {

using armengine::ClassStatistics;
using armengine::CorrelatorBytes;
using armengine::decodeCorrelator;
using armengine::Registry;
using armengine::RegistrySettings;
using armengine::StartData;
using armengine::Started;

using armengine::SECOND;

std::shared_ptr<ClassStatistics> entryOf(const Registry& registry, const std::string& application,
                                         const std::string& name) {
  for (const auto& entry : registry.statistics()) {
    if (entry->application == application && entry->name == name) return entry;
  }
  return nullptr;
}

TEST(RegistryLimits, ApplicationsBeyondTheLimitShareOther) {
  RegistrySettings settings;
  settings.most_applications = 2;
  Registry registry(1, settings);
  EXPECT_NE(registry.addApplication("a").result, registry.addApplication("b").result);
  const int32_t other = registry.addApplication("c").result;
  EXPECT_EQ(other, registry.addApplication("d").result);
  EXPECT_GT(other, 0);
  const int32_t its_class = registry.addClass(other, "order", "").result;
  EXPECT_EQ(its_class, registry.addClass(other, "refund", "").result);
  EXPECT_EQ(0, registry.stop(registry.start(its_class, {}, 0).result, 0, SECOND).result);
  EXPECT_EQ(1U, entryOf(registry, "other", "other")->good.get());
  EXPECT_EQ(0, registry.endApplication(other).result) << "others still use it";
  EXPECT_GT(registry.start(its_class, {}, 0).result, 0);
  EXPECT_EQ(2U, registry.counters().applications_over_limit.get());
}

TEST(RegistryLimits, ClassesBeyondTheLimitShareOther) {
  RegistrySettings settings;
  settings.most_classes = 3;
  Registry registry(1, settings);
  const int32_t application = registry.addApplication("a").result;
  const int32_t known = registry.addClass(application, "0", "").result;
  (void)registry.addClass(application, "1", "");
  (void)registry.addClass(application, "2", "");
  const int32_t other = registry.addClass(application, "3", "").result;
  EXPECT_GT(other, 0);
  EXPECT_EQ(other, registry.addClass(application, "4", "").result);
  EXPECT_EQ(known, registry.addClass(application, "0", "").result);
  EXPECT_GT(registry.start(other, {}, 0).result, 0);
  EXPECT_EQ(1U, entryOf(registry, "other", "other")->open.get());
  EXPECT_EQ(4U, registry.statistics().size());
  EXPECT_EQ(2U, registry.counters().classes_over_limit.get());
}

TEST(RegistryLimits, NamesOfManyShortLivedProgramsEndInOther) {
  RegistrySettings settings;
  settings.most_classes = 5;
  Registry registry(1, settings);
  for (int i = 0; i < 100; ++i) {
    const int32_t application = registry.addApplication("a").result;
    const int32_t id = registry.addClass(application, std::to_string(i), "").result;
    EXPECT_EQ(0, registry.stop(registry.start(id, {}, 0).result, 0, 1).result);
    EXPECT_EQ(0, registry.endApplication(application).result);
  }
  EXPECT_LE(registry.statistics().size(), 6U);
  EXPECT_EQ(95U, entryOf(registry, "other", "other")->good.get());
}

TEST(RegistryLimits, StartsBeyondTheLimitAreRefusedAndCounted) {
  RegistrySettings settings;
  settings.most_open = 2;
  Registry registry(1, settings);
  const int32_t id = registry.addClass(registry.addApplication("a").result, "order", "").result;
  const int32_t first = registry.start(id, {}, 0).result;
  EXPECT_GT(registry.start(id, {}, 0).result, 0);
  EXPECT_LT(registry.start(id, {}, 0).result, 0);
  EXPECT_EQ(1U, registry.counters().instances_over_limit.get());
  EXPECT_EQ(0, registry.stop(first, 0, 1).result);
  EXPECT_GT(registry.start(id, {}, 0).result, 0);
  EXPECT_EQ(2U, entryOf(registry, "a", "order")->open.get());
  EXPECT_EQ(3U, entryOf(registry, "a", "order")->started.get());
}

class IdleTest : public testing::Test {
 protected:
  static RegistrySettings settings() {
    RegistrySettings idle;
    idle.idle_seconds = 100;
    return idle;
  }
  Registry registry_{1, settings()};
  int32_t application_ = registry_.addApplication("a", "", 77).result;
  int32_t id_ = registry_.addClass(application_, "order", "").result;
};

TEST_F(IdleTest, UnusedStatisticsGoAndTheClassStaysUsable) {
  EXPECT_EQ(0, registry_.stop(registry_.start(id_, {}, 0).result, 0, 1).result);
  EXPECT_TRUE(registry_.expire(50).classes.empty());
  EXPECT_EQ(1U, registry_.expire(100).classes.size());
  EXPECT_TRUE(registry_.statistics().empty());
  EXPECT_EQ(1U, registry_.counters().expired_classes.get());
  EXPECT_EQ(0, registry_.stop(registry_.start(id_, {}, 0).result, 0, 1).result);
  EXPECT_EQ(1U, entryOf(registry_, "a", "order")->good.get());
}

TEST_F(IdleTest, UseAndOpenInstancesKeepStatistics) {
  EXPECT_TRUE(registry_.expire(90).classes.empty());
  const int32_t handle = registry_.start(id_, {}, 0).result;
  EXPECT_TRUE(registry_.expire(5000).classes.empty());
  EXPECT_EQ(0, registry_.stop(handle, 0, 1).result);
  EXPECT_TRUE(registry_.expire(5050).classes.empty());
  EXPECT_EQ(1U, registry_.expire(5100).classes.size());
}

TEST_F(IdleTest, ZeroKeepsThemForEver) {
  RegistrySettings never;
  never.idle_seconds = 0;
  Registry kept(1, never);
  (void)kept.addClass(kept.addApplication("a").result, "order", "");
  EXPECT_TRUE(kept.expire(uint64_t{1} << 40).classes.empty());
}

TEST_F(IdleTest, ApplicationOfAnEndedProcessGoesAfterAWhile) {
  (void)registry_.expire(10);
  registry_.processEnded(77);
  EXPECT_TRUE(registry_.expire(60).applications.empty());
  ASSERT_EQ(1U, registry_.expire(110).applications.size());
  EXPECT_EQ(0U, registry_.applications());
  EXPECT_FALSE(registry_.isClass(id_));
}

TEST_F(IdleTest, ApplicationThatAnotherProcessUsesStays) {
  (void)registry_.expire(10);
  registry_.processEnded(77);
  StartData by_child;
  by_child.process = 78;
  EXPECT_EQ(0, registry_.stop(registry_.start(id_, by_child, 0).result, 0, 1).result);
  EXPECT_TRUE(registry_.expire(5000).applications.empty());
  registry_.processEnded(78);
  (void)registry_.expire(5050);
  EXPECT_EQ(1U, registry_.expire(5200).applications.size());
}

TEST_F(IdleTest, ApplicationWithAnOpenInstanceStays) {
  registry_.processEnded(77);
  const int32_t handle = registry_.start(id_, {}, 0).result;
  EXPECT_TRUE(registry_.expire(5000).applications.empty());
  EXPECT_EQ(0, registry_.update(handle).result);
}

// ---- abandoned instances ------------------------------------------------------------------------

TEST(Abandoned, InstancesOfAProcessBeforeATimeAreFound) {
  Registry registry(1);
  const int32_t id = registry.addClass(registry.addApplication("a").result, "order", "").result;
  const auto start_by = [&](int32_t process, uint64_t seen) {
    StartData data;
    data.process = process;
    data.seen = seen;
    return registry.start(id, data, 0).result;
  };
  const int32_t early = start_by(7, 100);
  const int32_t late = start_by(7, 200);
  const int32_t other = start_by(8, 100);
  EXPECT_EQ((std::vector<int32_t>{early}), registry.openOf(7, 200));
  EXPECT_EQ((std::vector<int32_t>{early, late}), registry.openOf(7, 201));
  EXPECT_EQ(0, registry.update(other, nullptr, 7).result) << "it belongs to whoever used it last";
  EXPECT_EQ(3U, registry.openOf(7, 300).size());
  EXPECT_TRUE(registry.openOf(8, 300).empty());
}

TEST(Abandoned, TheyAreCountedApart) {
  Registry registry(1);
  const int32_t id = registry.addClass(registry.addApplication("a").result, "order", "").result;
  const int32_t handle = registry.start(id, {}, 1000).result;
  const armengine::Answer abandoned = registry.abandon(handle, 5000);
  EXPECT_EQ(0, abandoned.result);
  EXPECT_EQ(4000U, abandoned.subject.duration);
  EXPECT_LT(registry.abandon(handle, 5000).result, 0);
  EXPECT_LT(registry.stop(handle, 0, 5000).result, 0);
  const auto entry = entryOf(registry, "a", "order");
  EXPECT_EQ(1U, entry->abandoned.get());
  EXPECT_EQ(0U, entry->count());
  EXPECT_EQ(0U, entry->times.count());
  EXPECT_EQ(0U, entry->open.get());
}

// ---- traces -------------------------------------------------------------------------------------

class TracesTest : public testing::Test {
 protected:
  void make(const RegistrySettings& settings) {
    registry_ = std::make_unique<Registry>(5, settings);
    application_ = registry_->addApplication("shop").result;
    id_ = registry_->addClass(application_, "order", "").result;
  }
  bool traced(const Started& started) { return decodeCorrelator(started.correlator)->traced; }
  std::unique_ptr<Registry> registry_;
  int32_t application_ = 0;
  int32_t id_ = 0;
};

TEST_F(TracesTest, ChildIsInItsParentsTrace) {
  make({});
  const auto parent = decodeCorrelator(registry_->start(id_, {}, 0).correlator);
  StartData data;
  data.parent = armengine::encodeCorrelator(*parent);
  const Started started = registry_->start(id_, data, 0);
  const auto child = decodeCorrelator(started.correlator);
  EXPECT_EQ(parent->trace_id, child->trace_id);
  EXPECT_NE(parent->span_id, child->span_id);
  EXPECT_EQ(parent->span_id, started.subject.context.parent_id);
}

TEST_F(TracesTest, EveryRootHasATraceOfItsOwn) {
  make({});
  std::set<armengine::TraceId> traces;
  std::set<armengine::SpanId> spans;
  for (int i = 0; i < 1000; ++i) {
    const auto correlator = decodeCorrelator(registry_->start(id_, {}, 0).correlator);
    traces.insert(correlator->trace_id);
    spans.insert(correlator->span_id);
  }
  EXPECT_EQ(1000U, traces.size());
  EXPECT_EQ(1000U, spans.size());
}

TEST_F(TracesTest, ParentThatCannotBeReadStartsANewTraceAndIsCounted) {
  make({});
  const CorrelatorBytes good = registry_->start(id_, {}, 0).correlator;
  CorrelatorBytes cut = good;
  cut[1] = 20;
  CorrelatorBytes foreign = good;
  foreign[2] = 1;
  CorrelatorBytes damaged = good;
  damaged[30] = static_cast<uint8_t>(damaged[30] ^ 1);
  for (const CorrelatorBytes& bytes : {cut, foreign, damaged, CorrelatorBytes()}) {
    const Started started = registry_->start(id_, {bytes}, 0);
    EXPECT_GT(started.result, 0);
    EXPECT_NE(decodeCorrelator(good)->trace_id, decodeCorrelator(started.correlator)->trace_id);
    EXPECT_EQ(armengine::SpanId(), started.subject.context.parent_id);
  }
  EXPECT_EQ(4U, registry_->counters().parents_not_known.get());
}

TEST_F(TracesTest, ShareOfTheTracesThatIsTracedIsTheRate) {
  for (const double rate : {0.0, 0.25, 1.0}) {
    RegistrySettings settings;
    settings.sample = rate;
    make(settings);
    int count = 0;
    for (int i = 0; i < 4000; ++i) count += traced(registry_->start(id_, {}, 0)) ? 1 : 0;
    EXPECT_NEAR(rate * 4000, count, 150) << rate;
  }
}

TEST_F(TracesTest, ParentDecidesForItsChildrenWhateverTheRate) {
  RegistrySettings settings;
  settings.sample = 0;
  make(settings);
  armengine::Correlator elsewhere;
  elsewhere.trace_id[0] = 1;
  elsewhere.span_id[0] = 1;
  EXPECT_TRUE(traced(registry_->start(id_, {armengine::encodeCorrelator(elsewhere)}, 0)));
  elsewhere.traced = false;
  EXPECT_FALSE(traced(registry_->start(id_, {armengine::encodeCorrelator(elsewhere)}, 0)));
}

TEST_F(TracesTest, ApplicationThatAsksForATraceGetsOne) {
  RegistrySettings settings;
  settings.sample = 0;
  make(settings);
  StartData data;
  data.trace = true;
  EXPECT_TRUE(traced(registry_->start(id_, data, 0)));
}

TEST_F(TracesTest, IgnoredClassesAreCountedAndTheirChildrenAreNot) {
  RegistrySettings settings;
  settings.ignore = {"shop/pro*", "*/nothing"};
  make(settings);
  const int32_t probe = registry_->addClass(application_, "probe", "").result;
  const Started started = registry_->start(probe, {}, 0);
  EXPECT_EQ(1, started.correlator[109]);
  EXPECT_EQ(0, registry_->start(id_, {}, 0).correlator[109]);
  EXPECT_EQ(0, registry_->stop(started.result, 0, 5).result);
  EXPECT_EQ(1U, entryOf(*registry_, "shop", "probe")->good.get());
}

// ---- user metrics -------------------------------------------------------------------------------

class UserMetricsTest : public testing::Test {
 protected:
  std::string descriptions() const {
    arm_user_data101_t block = {};
    block.format = ARM_DATA_FORMAT_101;
    block.flags[1] = ARM_Metric1_f | ARM_Metric2_f;
    block.metric[0].type = ARM_Counter32;
    std::strcpy(block.metric[0].name, "rows");
    block.metric[1].type = ARM_Gauge32;
    std::strcpy(block.metric[1].name, "depth");
    return std::string(reinterpret_cast<const char*>(&block), sizeof block);
  }
  const uint8_t* values(int32_t counter, int32_t gauge, uint8_t flags = 0xFE) {
    block_ = {};
    block_.format = ARM_DATA_FORMAT_1;
    block_.flags[1] = flags;
    block_.metric[0].value32 = counter;
    block_.metric[1].value32 = gauge;
    return reinterpret_cast<const uint8_t*>(&block_);
  }
  double valueOf(const std::string& name) {
    const auto entry = entryOf(registry_, "a", "order");
    for (const auto* metric : entry->userMetrics()) {
      if (metric->name == name) return metric->value.get();
    }
    return -1;
  }
  int32_t startWith(const uint8_t* block) {
    StartData data;
    data.metrics = block;
    return registry_.start(id_, data, 0).result;
  }

  Registry registry_{1};
  int32_t application_ = registry_.addApplication("a").result;
  int32_t id_ = registry_.addClass(application_, "order", descriptions()).result;
  arm_user_data1_t block_ = {};
};

TEST_F(UserMetricsTest, CounterAddsWhatItGrewByDuringTheInstance) {
  const int32_t handle = startWith(values(100, 0));
  EXPECT_EQ(0, registry_.update(handle, values(130, 0)).result);
  EXPECT_EQ(0, valueOf("rows"));
  EXPECT_EQ(0, registry_.stop(handle, 0, 1, values(150, 0)).result);
  EXPECT_EQ(50, valueOf("rows"));
}

TEST_F(UserMetricsTest, CounterThatIsOnlyGivenAtTheStopBeganWithZero) {
  EXPECT_EQ(0, registry_.stop(registry_.start(id_, {}, 0).result, 0, 1, values(7, 0)).result);
  EXPECT_EQ(0, registry_.stop(registry_.start(id_, {}, 0).result, 0, 1, values(5, 0)).result);
  EXPECT_EQ(12, valueOf("rows"));
}

TEST_F(UserMetricsTest, CounterThatFallsAddsNothing) {
  EXPECT_EQ(0, registry_.stop(startWith(values(100, 0)), 0, 1, values(20, 0)).result);
  EXPECT_EQ(0, valueOf("rows"));
}

TEST_F(UserMetricsTest, GaugeIsItsLastValidValue) {
  const int32_t handle = startWith(values(0, 5));
  EXPECT_EQ(5, valueOf("depth"));
  EXPECT_EQ(0, registry_.update(handle, values(0, -9)).result);
  EXPECT_EQ(-9, valueOf("depth"));
  EXPECT_EQ(0, registry_.stop(handle, 0, 1, values(0, 77, 0x80)).result);
  EXPECT_EQ(-9, valueOf("depth"));
}

TEST_F(UserMetricsTest, ReportAddsItsCounters) {
  StartData data;
  data.metrics = values(9, 4);
  EXPECT_EQ(0, registry_.report(id_, data, 0, 1).result);
  EXPECT_EQ(9, valueOf("rows"));
  EXPECT_EQ(4, valueOf("depth"));
}

TEST_F(UserMetricsTest, ClassWithoutDescriptionsHasNone) {
  const int32_t plain = registry_.addClass(application_, "plain", "").result;
  StartData data;
  data.metrics = values(9, 4);
  EXPECT_EQ(0, registry_.stop(registry_.start(plain, data, 0).result, 0, 1, values(1, 1)).result);
  EXPECT_TRUE(entryOf(registry_, "a", "plain")->userMetrics().empty());
}

TEST(Times, ClockThatSteppedBackIsCounted) {
  Registry registry(1);
  const int32_t id = registry.addClass(registry.addApplication("a").result, "order", "").result;
  EXPECT_EQ(0, registry.stop(registry.start(id, {}, 5000).result, 0, 4999).result);
  EXPECT_EQ(0, registry.stop(registry.start(id, {}, 5000).result, 0, 5000).result);
  EXPECT_EQ(1U, registry.counters().clocks_stepped_back.get());
  EXPECT_EQ(0U, entryOf(registry, "a", "order")->times.maximum());
}

TEST(Times, BucketsCountWhatDoesNotExceedTheirBounds) {
  RegistrySettings settings;
  settings.buckets = {1000, 2000};
  Registry registry(1, settings);
  const int32_t id = registry.addClass(registry.addApplication("a").result, "order", "").result;
  for (const uint64_t duration : {0U, 1000U, 1001U, 2000U, 2001U, 90000U}) {
    EXPECT_EQ(0, registry.stop(registry.start(id, {}, 10).result, 0, 10 + duration).result);
  }
  const auto entry = entryOf(registry, "a", "order");
  EXPECT_EQ(2U, entry->buckets[0].get());
  EXPECT_EQ(2U, entry->buckets[1].get());
  EXPECT_EQ(2U, entry->buckets[2].get());
}

}  // namespace
