#include "registry/UserMetrics.h"

#include <gtest/gtest.h>

#include <cstring>

#include "armext.h"

namespace {

using armengine::MetricDescriptions;
using armengine::MetricType;
using armengine::MetricValue;
using armengine::readMetric;

class DescriptionsTest : public testing::Test {
 protected:
  DescriptionsTest() { block_.format = ARM_DATA_FORMAT_101; }
  void describe(size_t slot, int32_t type, const char* name) {
    block_.metric[slot].type = type;
    std::strncpy(block_.metric[slot].name, name, sizeof block_.metric[slot].name);
  }
  MetricDescriptions read() {
    uint8_t bytes[344];
    std::memcpy(bytes, &block_, sizeof bytes);
    return armengine::readDescriptions(bytes);
  }
  arm_user_data101_t block_ = {};
};

TEST_F(DescriptionsTest, SlotsThatTheFlagsNameAreRead) {
  describe(0, ARM_Counter32, "rows");
  describe(1, ARM_Gauge64, "depth");
  describe(6, ARM_String32, "customer");
  block_.flags[1] = ARM_Metric1_f | ARM_String1_f;
  const MetricDescriptions read_ones = read();
  EXPECT_EQ(MetricType::counter32, read_ones[0].type);
  EXPECT_EQ("rows", read_ones[0].name);
  EXPECT_EQ(MetricType::none, read_ones[1].type);
  EXPECT_EQ(MetricType::string32, read_ones[6].type);
  EXPECT_EQ("customer", read_ones[6].name);
}

TEST_F(DescriptionsTest, WithoutAnyFlagEverySlotWithTypeAndNameIsRead) {
  describe(2, ARM_GaugeDivr32, "load");
  describe(3, ARM_Gauge32, "");
  EXPECT_EQ(MetricType::gauge_ratio, read()[2].type);
  EXPECT_EQ(MetricType::none, read()[3].type);
}

TEST_F(DescriptionsTest, TypesThatDoNotFitTheirSlotAreLeftOut) {
  block_.flags[1] = ARM_AllMetrics_f;
  describe(0, ARM_String32, "a");
  describe(1, 0, "b");
  describe(2, 11, "c");
  describe(3, -1, "d");
  describe(6, ARM_Counter32, "e");
  for (const auto& description : read()) EXPECT_EQ(MetricType::none, description.type);
}

TEST_F(DescriptionsTest, NamesWithoutAnEndOrBeginningAreRead) {
  block_.flags[1] = ARM_Metric1_f | ARM_Metric2_f;
  describe(0, ARM_Counter32, std::string(60, 'x').c_str());
  describe(1, ARM_Counter32, "");
  EXPECT_EQ(std::string(44, 'x'), read()[0].name);
  EXPECT_EQ("metric2", read()[1].name);
}

class ValuesTest : public testing::Test {
 protected:
  ValuesTest() {
    block_.format = ARM_DATA_FORMAT_1;
    block_.flags[1] = ARM_AllMetrics_f;
  }
  MetricValue read(size_t slot, MetricType type) {
    uint8_t bytes[256];
    std::memcpy(bytes, &block_, sizeof bytes);
    const MetricValue value = readMetric(bytes, slot, type);
    text_ = value.text;
    return value;
  }
  arm_user_data1_t block_ = {};
  std::string text_;
};

TEST_F(ValuesTest, CountersAndIdsHaveNoSignAndGaugesHave) {
  block_.metric[0].value32 = -2;
  EXPECT_EQ(4294967294U, read(0, MetricType::counter32).unsigned_whole);
  EXPECT_EQ(4294967294U, read(0, MetricType::id32).unsigned_whole);
  EXPECT_EQ(-2, read(0, MetricType::gauge32).whole);
  block_.metric[5].value64.low = 0xFFFFFFFE;
  block_.metric[5].value64.high = 0xFFFFFFFF;
  EXPECT_EQ(18446744073709551614U, read(5, MetricType::counter64).unsigned_whole);
  EXPECT_EQ(-2, read(5, MetricType::gauge64).whole);
}

TEST_F(ValuesTest, RatiosAreDividedAndThoseByZeroAreNoValues) {
  block_.metric[1].ratio32.value = 7;
  block_.metric[1].ratio32.divisor = -2;
  EXPECT_DOUBLE_EQ(-3.5, read(1, MetricType::gauge_ratio).number());
  block_.metric[1].ratio32.divisor = 0;
  EXPECT_EQ(MetricValue::Kind::none, read(1, MetricType::gauge_ratio).kind);
  EXPECT_EQ(MetricValue::Kind::none, read(1, MetricType::counter_ratio).kind);
}

TEST_F(ValuesTest, StringsEndAtAZeroOrWithTheirSlot) {
  std::memcpy(block_.metric[2].string8, "12345678", 8);
  read(2, MetricType::string8);
  EXPECT_EQ("12345678", text_);
  std::memcpy(block_.string32, "acme\0x", 6);
  read(6, MetricType::string32);
  EXPECT_EQ("acme", text_);
}

TEST_F(ValuesTest, SlotsWithoutTheirBitAreNoValues) {
  const uint8_t bits[] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02};
  for (size_t slot = 0; slot < 7; ++slot) {
    block_.flags[1] = bits[slot];
    for (size_t other = 0; other < 7; ++other) {
      const MetricType type = other == 6 ? MetricType::string32 : MetricType::gauge32;
      EXPECT_EQ(slot == other, read(other, type).kind != MetricValue::Kind::none);
    }
  }
}

TEST_F(ValuesTest, BlockOfAnotherFormatHasNoValues) {
  block_.format = 2;
  EXPECT_EQ(MetricValue::Kind::none, read(0, MetricType::gauge32).kind);
}

}  // namespace
