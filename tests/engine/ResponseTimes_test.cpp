#include "registry/ResponseTimes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

namespace {

using armengine::ResponseTimes;

ResponseTimes timesOf(const std::vector<uint64_t>& values) {
  ResponseTimes times;
  for (const uint64_t value : values) times.add(value);
  return times;
}

/// The nearest rank, by sorting.
uint64_t exactPercentile(std::vector<uint64_t> values, unsigned percent) {
  std::sort(values.begin(), values.end());
  const size_t rank = (values.size() * percent + 99) / 100;
  return values[rank - 1];
}

void expectCloseToExact(const std::vector<uint64_t>& values) {
  const ResponseTimes times = timesOf(values);
  for (unsigned percent = 1; percent <= 100; ++percent) {
    const uint64_t exact = exactPercentile(values, percent);
    EXPECT_GE(times.percentile(percent), exact) << percent;
    EXPECT_LE(times.percentile(percent), exact + exact / 128) << percent;
  }
}

TEST(ResponseTimes, NoTimesHaveThePercentileZero) {
  EXPECT_EQ(0U, ResponseTimes().percentile(50));
  EXPECT_EQ(0U, ResponseTimes().maximum());
  EXPECT_EQ(0U, ResponseTimes().count());
}

TEST(ResponseTimes, SmallTimesAreExact) {
  std::vector<uint64_t> values;
  for (uint64_t value = 0; value < 100; ++value) values.push_back(value);
  const ResponseTimes times = timesOf(values);
  EXPECT_EQ(100U, times.count());
  EXPECT_EQ(0U, times.percentile(1));
  EXPECT_EQ(49U, times.percentile(50));
  EXPECT_EQ(94U, times.percentile(95));
  EXPECT_EQ(98U, times.percentile(99));
  EXPECT_EQ(99U, times.percentile(100));
}

TEST(ResponseTimes, OneTimeIsEveryPercentile) {
  const ResponseTimes times = timesOf({123456789});
  for (const unsigned percent : {1U, 50U, 99U, 100U}) {
    EXPECT_EQ(123456789U, times.percentile(percent));
  }
}

TEST(ResponseTimes, MaximumIsExact) {
  EXPECT_EQ(987654321U, timesOf({5, 987654321, 70000}).maximum());
}

TEST(ResponseTimes, LargestPossibleTimeIsCounted) {
  const ResponseTimes times = timesOf({1, UINT64_MAX});
  EXPECT_EQ(1U, times.percentile(50));
  EXPECT_EQ(UINT64_MAX, times.percentile(100));
  EXPECT_EQ(UINT64_MAX, times.maximum());
}

TEST(ResponseTimes, EveryPowerOfTwoFallsIntoItsOwnStep) {
  for (unsigned bit = 0; bit < 64; ++bit) {
    const uint64_t power = uint64_t{1} << bit;
    const ResponseTimes times = timesOf({power - 1, power, UINT64_MAX});
    EXPECT_GE(times.percentile(66), power) << bit;
    EXPECT_LE(times.percentile(66), power + power / 128) << bit;
    EXPECT_LT(times.percentile(33), power) << bit;
  }
}

TEST(ResponseTimes, PercentilesOfEvenTimesAreCloseToTheExactOnes) {
  std::vector<uint64_t> values;
  for (uint64_t value = 1; value <= 5000; ++value) values.push_back(value * 1000);
  expectCloseToExact(values);
}

TEST(ResponseTimes, PercentilesOfWidelySpreadTimesAreCloseToTheExactOnes) {
  std::mt19937_64 random(1);
  std::lognormal_distribution<double> spread(12, 3);
  std::vector<uint64_t> values;
  for (int i = 0; i < 20000; ++i) values.push_back(static_cast<uint64_t>(spread(random)));
  expectCloseToExact(values);
}

TEST(ResponseTimes, MergedOnesAreAsIfAllHadBeenAddedToOne) {
  std::mt19937_64 random(2);
  std::lognormal_distribution<double> spread(14, 2);
  ResponseTimes all;
  ResponseTimes parts[3];
  for (int i = 0; i < 3000; ++i) {
    const auto value = static_cast<uint64_t>(spread(random));
    all.add(value);
    parts[i % 3].add(value);
  }
  ResponseTimes merged;
  for (const ResponseTimes& part : parts) merged.merge(part);
  EXPECT_EQ(all.count(), merged.count());
  EXPECT_EQ(all.sum(), merged.sum());
  EXPECT_EQ(all.maximum(), merged.maximum());
  for (unsigned percent = 1; percent <= 100; ++percent) {
    EXPECT_EQ(all.percentile(percent), merged.percentile(percent)) << percent;
  }
}

TEST(ResponseTimes, OneMayReadWhileAnotherAdds) {
  ResponseTimes times;
  std::thread reader([&times] {
    while (times.count() < 20000) EXPECT_LE(times.percentile(50), 1ULL << 40);
  });
  for (uint64_t i = 0; i < 20000; ++i) times.add(uint64_t{1} << (i % 40));
  reader.join();
}

TEST(ResponseTimes, FewTimesHaveTheirNearestRank) {
  expectCloseToExact({10000, 20000, 30000});
  expectCloseToExact({7, 7, 7, 1000000});
}

}  // namespace
