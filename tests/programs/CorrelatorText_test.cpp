#include "armrun/CorrelatorText.h"

#include <gtest/gtest.h>

namespace {

arm_correlator_t counting() {
  arm_correlator_t correlator = {};
  for (std::size_t i = 0; i < 168; ++i) correlator.bytes[i] = static_cast<arm_uint8_t>(i * 7);
  return correlator;
}

TEST(CorrelatorText, IsLowerCaseHexOfAllBytes) {
  const std::string text = armrun::toHex(counting());
  EXPECT_EQ(336U, text.size());
  EXPECT_EQ("00070e151c", text.substr(0, 10));
  EXPECT_EQ(std::string::npos, text.find_first_not_of("0123456789abcdef"));
}

TEST(CorrelatorText, IsReadBack) {
  const arm_correlator_t written = counting();
  arm_correlator_t read = {};
  ASSERT_TRUE(armrun::fromHex(armrun::toHex(written), &read));
  for (std::size_t i = 0; i < 168; ++i) EXPECT_EQ(written.bytes[i], read.bytes[i]) << i;
}

TEST(CorrelatorText, CapitalDigitsAreRead) {
  arm_correlator_t read = {};
  ASSERT_TRUE(armrun::fromHex("AF" + std::string(334, '0'), &read));
  EXPECT_EQ(0xAF, read.bytes[0]);
}

TEST(CorrelatorText, EverythingElseIsRefused) {
  arm_correlator_t read = {};
  for (const std::string& text :
       {std::string(), std::string(334, '0'), std::string(335, '0'), std::string(338, '0'),
        std::string(335, '0') + "g", " " + std::string(335, '0'), "0x" + std::string(334, '0')}) {
    EXPECT_FALSE(armrun::fromHex(text, &read)) << text;
  }
}

}  // namespace
