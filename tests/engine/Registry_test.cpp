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
    return registry_.start(id, {parent}, time);
  }
  void startAndStop(int32_t id, int32_t status, uint64_t duration) {
    EXPECT_EQ(0, registry_.stop(start(id).result, status, 1000 + duration).result);
  }
  const ClassStatistics& onlyStatistics() {
    const auto all = registry_.statistics();
    EXPECT_EQ(1U, all.size());
    return *all.at(0);  // kept by the registry
  }

  Registry registry_{ENGINE};
  int32_t application_ = registry_.addApplication("shop").result;
  int32_t orders_ = registry_.addClass(application_, "order", "").result;
};

TEST_F(RegistryTest, IdsArePositiveAndUnique) {
  std::set<int32_t> ids = {application_, orders_};
  for (int i = 0; i < 50; ++i) {
    const int32_t other = registry_.addApplication("shop").result;
    ids.insert(other);
    ids.insert(registry_.addClass(other, "order", "").result);
    ids.insert(start(orders_).result);
  }
  EXPECT_EQ(152U, ids.size());
  EXPECT_GT(*ids.begin(), 0);
}

TEST_F(RegistryTest, NumbersGoRoundWithoutTheIgnoredOneAndWithoutThoseInUse) {
  registry_.continueAfter(IGNORED - 2);
  EXPECT_EQ(IGNORED - 1, start(orders_).result);
  const int32_t next = start(orders_).result;
  EXPECT_EQ(std::max(application_, orders_) + 1, next);
  EXPECT_NE(application_, next);
  EXPECT_NE(orders_, next);
}

TEST_F(RegistryTest, RepeatedClassHasTheSameId) {
  EXPECT_EQ(orders_, registry_.addClass(application_, "order", "").result);
}

TEST_F(RegistryTest, ClassesDifferInApplicationNameAndBlock) {
  const int32_t other = registry_.addApplication("shop").result;
  const std::set<int32_t> ids = {orders_, registry_.addClass(other, "order", "").result,
                                 registry_.addClass(application_, "refund", "").result,
                                 registry_.addClass(application_, "order", "block").result,
                                 registry_.addClass(application_, "order", "other block").result};
  EXPECT_EQ(5U, ids.size());
  EXPECT_EQ(1U, ids.count(registry_.addClass(application_, "order", "block").result));
}

TEST_F(RegistryTest, ClassOfAnUnknownApplicationIsRefused) {
  EXPECT_LT(registry_.addClass(application_ + 1000, "order", "").result, 0);
  EXPECT_LT(registry_.addClass(0, "order", "").result, 0);
  EXPECT_LT(registry_.addClass(orders_, "order", "").result, 0);
}

TEST_F(RegistryTest, StartOfAnUnknownClassIsRefused) {
  for (const int32_t id : {0, -1, application_, 1000, IGNORED})
    EXPECT_LT(start(id).result, 0) << id;
}

TEST_F(RegistryTest, UnknownHandlesAreRefused) {
  for (const int32_t id : {0, -1, application_, orders_, 1000, IGNORED}) {
    EXPECT_LT(registry_.update(id).result, 0) << id;
    EXPECT_LT(registry_.stop(id, 0, 0).result, 0) << id;
  }
}

TEST_F(RegistryTest, OpenInstanceIsUpdatedAndStoppedOnce) {
  const int32_t handle = start(orders_).result;
  EXPECT_EQ(0, registry_.update(handle).result);
  EXPECT_EQ(0, registry_.update(handle).result);
  EXPECT_EQ(0, registry_.stop(handle, 0, 2000).result);
  EXPECT_LT(registry_.update(handle).result, 0);
  EXPECT_LT(registry_.stop(handle, 0, 2000).result, 0);
  EXPECT_EQ(1U, onlyStatistics().count());
}

TEST_F(RegistryTest, StatusesAreCountedApart) {
  for (const int32_t status : {0, 0, 0, 1, 2, 2, 3, -1}) startAndStop(orders_, status, 10);
  const ClassStatistics& statistics = onlyStatistics();
  EXPECT_EQ(3U, statistics.good.get());
  EXPECT_EQ(1U, statistics.aborted.get());
  EXPECT_EQ(2U, statistics.failed.get());
  EXPECT_EQ(2U, statistics.unknown.get());
  EXPECT_EQ(8U, statistics.count());
}

TEST_F(RegistryTest, DurationIsStopLessStart) {
  startAndStop(orders_, 0, 12345678);
  EXPECT_EQ(12345678U, onlyStatistics().times.maximum());
}

TEST_F(RegistryTest, ClockThatSteppedBackGivesZero) {
  EXPECT_EQ(0, registry_.stop(start(orders_, std::nullopt, 5000).result, 0, 4999).result);
  EXPECT_EQ(1U, onlyStatistics().times.count());
  EXPECT_EQ(0U, onlyStatistics().times.maximum());
}

TEST_F(RegistryTest, EndedApplicationTakesNoClassAndNoStart) {
  const int32_t open = start(orders_).result;
  EXPECT_EQ(0, registry_.endApplication(application_).result);
  EXPECT_LT(registry_.addClass(application_, "order", "").result, 0);
  EXPECT_LT(registry_.addClass(application_, "refund", "").result, 0);
  EXPECT_LT(start(orders_).result, 0);
  EXPECT_LT(registry_.endApplication(application_).result, 0);
  EXPECT_EQ(0, registry_.update(open).result);
  EXPECT_EQ(0, registry_.stop(open, 0, 3000).result);
  EXPECT_EQ(1U, onlyStatistics().count());
}

TEST_F(RegistryTest, EndedApplicationIsForgottenWithItsLastInstance) {
  const int32_t first = start(orders_).result;
  const int32_t second = start(orders_).result;
  EXPECT_EQ(0, registry_.endApplication(application_).result);
  EXPECT_EQ(0, registry_.stop(first, 0, 3000).result);
  EXPECT_EQ(1U, registry_.applications());
  EXPECT_TRUE(registry_.isClass(orders_));
  EXPECT_EQ(0, registry_.stop(second, 0, 3000).result);
  EXPECT_EQ(0U, registry_.applications());
  EXPECT_FALSE(registry_.isClass(orders_));
  EXPECT_EQ(2U, onlyStatistics().count());
}

TEST_F(RegistryTest, EndOfOneApplicationLeavesAnotherOfTheSameName) {
  const int32_t other = registry_.addApplication("shop").result;
  const int32_t others_orders = registry_.addClass(other, "order", "").result;
  EXPECT_EQ(0, registry_.endApplication(application_).result);
  EXPECT_GT(start(others_orders).result, 0);
}

TEST_F(RegistryTest, EndOfAnUnknownApplicationIsRefused) {
  EXPECT_LT(registry_.endApplication(0).result, 0);
  EXPECT_LT(registry_.endApplication(orders_).result, 0);
}

TEST_F(RegistryTest, StatisticsAreAddedUpByNames) {
  const int32_t other = registry_.addApplication("shop").result;
  startAndStop(orders_, 0, 10);
  startAndStop(registry_.addClass(other, "order", "").result, 0, 10);
  startAndStop(registry_.addClass(application_, "order", "block").result, 0, 10);
  EXPECT_EQ(3U, onlyStatistics().count());
}

TEST_F(RegistryTest, CorrelatorNamesClassHandleAndEngine) {
  const Started started = start(orders_);
  const auto correlator = decodeCorrelator(started.correlator);
  ASSERT_TRUE(correlator);
  EXPECT_EQ(ENGINE, correlator->engine);
  EXPECT_EQ(orders_, correlator->class_id);
  EXPECT_EQ(started.result, correlator->handle);
}

TEST_F(RegistryTest, ParentThatCannotBeResolvedIsNoError) {
  const Started parent = start(orders_);
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
  wrong_class.class_id = application_;
  wrong_class.handle = parent.result;
  const CorrelatorBytes mixed = armengine::encodeCorrelator(wrong_class);
  for (const CorrelatorBytes& bytes : {cut, foreign, empty, other, mixed}) {
    EXPECT_GT(start(orders_, bytes).result, 0);
  }
  EXPECT_EQ(0, registry_.stop(parent.result, 0, 2000).result);
  EXPECT_GT(start(orders_, parent.correlator).result, 0);
}

TEST_F(RegistryTest, ReportCountsAFinishedInstance) {
  const Started parent = start(orders_);
  const Started reported = registry_.report(orders_, {parent.correlator}, 2, 5000000);
  EXPECT_EQ(0, reported.result);
  EXPECT_EQ(1U, onlyStatistics().failed.get());
  EXPECT_EQ(5000000U, onlyStatistics().times.maximum());
  EXPECT_EQ(1U, registry_.openInstances());
  EXPECT_EQ(orders_, decodeCorrelator(reported.correlator)->class_id);
  EXPECT_LT(registry_.report(application_, {}, 0, 0).result, 0);
}

}  // namespace
