#include "registry/Registry.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>

namespace {

using armengine::ClassStatistics;
using armengine::CorrelatorBytes;
using armengine::decodeCorrelator;
using armengine::Registry;
using armengine::Started;

constexpr uint64_t ENGINE = 77;
constexpr int32_t IGNORED = std::numeric_limits<int32_t>::max();

class RegistryTest : public testing::Test {
 protected:
  Started start(int32_t id, const std::optional<CorrelatorBytes>& parent = std::nullopt,
                uint64_t time = 1000) {
    return registry.start(id, {parent}, time);
  }
  void startAndStop(int32_t id, int32_t status, uint64_t duration) {
    EXPECT_EQ(0, registry.stop(start(id).result, status, 1000 + duration).result);
  }
  const ClassStatistics& onlyStatistics() {
    const auto all = registry.statistics();
    EXPECT_EQ(1U, all.size());
    return *all.at(0);  // kept by the registry
  }

  Registry registry{ENGINE};
  int32_t application = registry.addApplication("shop").result;
  int32_t orders = registry.addClass(application, "order", "").result;
};

TEST_F(RegistryTest, IdsArePositiveAndUnique) {
  std::set<int32_t> ids = {application, orders};
  for (int i = 0; i < 50; ++i) {
    const int32_t other = registry.addApplication("shop").result;
    ids.insert(other);
    ids.insert(registry.addClass(other, "order", "").result);
    ids.insert(start(orders).result);
  }
  EXPECT_EQ(152U, ids.size());
  EXPECT_GT(*ids.begin(), 0);
}

TEST_F(RegistryTest, NumbersGoRoundWithoutTheIgnoredOneAndWithoutThoseInUse) {
  registry.continueAfter(IGNORED - 2);
  EXPECT_EQ(IGNORED - 1, start(orders).result);
  const int32_t next = start(orders).result;
  EXPECT_EQ(std::max(application, orders) + 1, next);
  EXPECT_NE(application, next);
  EXPECT_NE(orders, next);
}

TEST_F(RegistryTest, RepeatedClassHasTheSameId) {
  EXPECT_EQ(orders, registry.addClass(application, "order", "").result);
}

TEST_F(RegistryTest, ClassesDifferInApplicationNameAndBlock) {
  const int32_t other = registry.addApplication("shop").result;
  const std::set<int32_t> ids = {orders, registry.addClass(other, "order", "").result,
                                 registry.addClass(application, "refund", "").result,
                                 registry.addClass(application, "order", "block").result,
                                 registry.addClass(application, "order", "other block").result};
  EXPECT_EQ(5U, ids.size());
  EXPECT_EQ(1U, ids.count(registry.addClass(application, "order", "block").result));
}

TEST_F(RegistryTest, ClassOfAnUnknownApplicationIsRefused) {
  EXPECT_LT(registry.addClass(application + 1000, "order", "").result, 0);
  EXPECT_LT(registry.addClass(0, "order", "").result, 0);
  EXPECT_LT(registry.addClass(orders, "order", "").result, 0);
}

TEST_F(RegistryTest, StartOfAnUnknownClassIsRefused) {
  for (const int32_t id : {0, -1, application, 1000, IGNORED}) EXPECT_LT(start(id).result, 0) << id;
}

TEST_F(RegistryTest, UnknownHandlesAreRefused) {
  for (const int32_t id : {0, -1, application, orders, 1000, IGNORED}) {
    EXPECT_LT(registry.update(id).result, 0) << id;
    EXPECT_LT(registry.stop(id, 0, 0).result, 0) << id;
  }
}

TEST_F(RegistryTest, OpenInstanceIsUpdatedAndStoppedOnce) {
  const int32_t handle = start(orders).result;
  EXPECT_EQ(0, registry.update(handle).result);
  EXPECT_EQ(0, registry.update(handle).result);
  EXPECT_EQ(0, registry.stop(handle, 0, 2000).result);
  EXPECT_LT(registry.update(handle).result, 0);
  EXPECT_LT(registry.stop(handle, 0, 2000).result, 0);
  EXPECT_EQ(1U, onlyStatistics().count());
}

TEST_F(RegistryTest, StatusesAreCountedApart) {
  for (const int32_t status : {0, 0, 0, 1, 2, 2, 3, -1}) startAndStop(orders, status, 10);
  const ClassStatistics& statistics = onlyStatistics();
  EXPECT_EQ(3U, statistics.good.get());
  EXPECT_EQ(1U, statistics.aborted.get());
  EXPECT_EQ(2U, statistics.failed.get());
  EXPECT_EQ(2U, statistics.unknown.get());
  EXPECT_EQ(8U, statistics.count());
}

TEST_F(RegistryTest, DurationIsStopLessStart) {
  startAndStop(orders, 0, 12345678);
  EXPECT_EQ(12345678U, onlyStatistics().times.maximum());
}

TEST_F(RegistryTest, ClockThatSteppedBackGivesZero) {
  EXPECT_EQ(0, registry.stop(start(orders, std::nullopt, 5000).result, 0, 4999).result);
  EXPECT_EQ(1U, onlyStatistics().times.count());
  EXPECT_EQ(0U, onlyStatistics().times.maximum());
}

TEST_F(RegistryTest, EndedApplicationTakesNoClassAndNoStart) {
  const int32_t open = start(orders).result;
  EXPECT_EQ(0, registry.endApplication(application).result);
  EXPECT_LT(registry.addClass(application, "order", "").result, 0);
  EXPECT_LT(registry.addClass(application, "refund", "").result, 0);
  EXPECT_LT(start(orders).result, 0);
  EXPECT_LT(registry.endApplication(application).result, 0);
  EXPECT_EQ(0, registry.update(open).result);
  EXPECT_EQ(0, registry.stop(open, 0, 3000).result);
  EXPECT_EQ(1U, onlyStatistics().count());
}

TEST_F(RegistryTest, EndedApplicationIsForgottenWithItsLastInstance) {
  const int32_t first = start(orders).result;
  const int32_t second = start(orders).result;
  EXPECT_EQ(0, registry.endApplication(application).result);
  EXPECT_EQ(0, registry.stop(first, 0, 3000).result);
  EXPECT_EQ(1U, registry.applications());
  EXPECT_TRUE(registry.isClass(orders));
  EXPECT_EQ(0, registry.stop(second, 0, 3000).result);
  EXPECT_EQ(0U, registry.applications());
  EXPECT_FALSE(registry.isClass(orders));
  EXPECT_EQ(2U, onlyStatistics().count());
}

TEST_F(RegistryTest, EndOfOneApplicationLeavesAnotherOfTheSameName) {
  const int32_t other = registry.addApplication("shop").result;
  const int32_t others_orders = registry.addClass(other, "order", "").result;
  EXPECT_EQ(0, registry.endApplication(application).result);
  EXPECT_GT(start(others_orders).result, 0);
}

TEST_F(RegistryTest, EndOfAnUnknownApplicationIsRefused) {
  EXPECT_LT(registry.endApplication(0).result, 0);
  EXPECT_LT(registry.endApplication(orders).result, 0);
}

TEST_F(RegistryTest, StatisticsAreAddedUpByNames) {
  const int32_t other = registry.addApplication("shop").result;
  startAndStop(orders, 0, 10);
  startAndStop(registry.addClass(other, "order", "").result, 0, 10);
  startAndStop(registry.addClass(application, "order", "block").result, 0, 10);
  EXPECT_EQ(3U, onlyStatistics().count());
}

TEST_F(RegistryTest, CorrelatorNamesClassHandleAndEngine) {
  const Started started = start(orders);
  const auto correlator = decodeCorrelator(started.correlator);
  ASSERT_TRUE(correlator);
  EXPECT_EQ(ENGINE, correlator->engine);
  EXPECT_EQ(orders, correlator->class_id);
  EXPECT_EQ(started.result, correlator->handle);
}

TEST_F(RegistryTest, ParentThatCannotBeResolvedIsNoError) {
  const Started parent = start(orders);
  Registry other_engine(ENGINE + 1);
  const int32_t theirs =
      other_engine.addClass(other_engine.addApplication("shop").result, "order", "").result;
  CorrelatorBytes cut = parent.correlator;
  cut[1] = 20;
  CorrelatorBytes foreign = parent.correlator;
  foreign[2] = 3;
  const CorrelatorBytes empty = {};
  const CorrelatorBytes other = other_engine.start(theirs, {}, 0).correlator;
  armengine::Correlator wrong_class;
  wrong_class.engine = ENGINE;
  wrong_class.class_id = application;
  wrong_class.handle = parent.result;
  const CorrelatorBytes mixed = armengine::encodeCorrelator(wrong_class);
  for (const CorrelatorBytes& bytes : {cut, foreign, empty, other, mixed}) {
    EXPECT_GT(start(orders, bytes).result, 0);
  }
  EXPECT_EQ(0, registry.stop(parent.result, 0, 2000).result);
  EXPECT_GT(start(orders, parent.correlator).result, 0);
}

TEST_F(RegistryTest, ReportCountsAFinishedInstance) {
  const Started parent = start(orders);
  const Started reported = registry.report(orders, {parent.correlator}, 2, 5000000);
  EXPECT_EQ(0, reported.result);
  EXPECT_EQ(1U, onlyStatistics().failed.get());
  EXPECT_EQ(5000000U, onlyStatistics().times.maximum());
  EXPECT_EQ(1U, registry.openInstances());
  EXPECT_EQ(orders, decodeCorrelator(reported.correlator)->class_id);
  EXPECT_LT(registry.report(application, {}, 0, 0).result, 0);
}

}  // namespace
