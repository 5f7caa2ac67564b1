#include "registry/Correlator.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using armengine::Correlator;
using armengine::CorrelatorBytes;
using armengine::decodeCorrelator;
using armengine::encodeCorrelator;

Correlator sample() {
  Correlator correlator;
  correlator.engine = 0x1122334455667788;
  correlator.class_id = 0x01020304;
  correlator.handle = 0x7FFFFFFE;
  return correlator;
}

TEST(Correlator, BytesAreInNetworkOrder) {
  const CorrelatorBytes bytes = encodeCorrelator(sample());
  const std::string expected(
      "\x00\xA8\xC1\x00"
      "ARMC"
      "\x00\x01\x00\x00"
      "\x01\x02\x03\x04"
      "\x7F\xFF\xFF\xFE"
      "\x11\x22\x33\x44\x55\x66\x77\x88",
      28);
  EXPECT_EQ(expected, std::string(bytes.begin(), bytes.begin() + 28));
}

TEST(Correlator, Is168BytesAndSaysSo) {
  const CorrelatorBytes bytes = encodeCorrelator(sample());
  EXPECT_EQ(168U, bytes.size());
  EXPECT_EQ(168, bytes[0] * 256 + bytes[1]);
}

TEST(Correlator, FormatNumberIsOneOfTheAgentsOwn) {
  EXPECT_GE(encodeCorrelator(sample())[2], 128);
}

TEST(Correlator, Byte109IsZeroSoThatChildrenAreNotIgnored) {
  Correlator correlator;
  correlator.engine = UINT64_MAX;
  correlator.class_id = -1;
  correlator.handle = -1;
  correlator.trace = true;
  EXPECT_EQ(0, encodeCorrelator(correlator)[109]);
}

TEST(Correlator, TraceFlagIsInByteThree) {
  Correlator correlator = sample();
  correlator.trace = true;
  EXPECT_EQ(0x40, encodeCorrelator(correlator)[3]);
}

TEST(Correlator, WhatIsEncodedIsDecoded) {
  Correlator correlator = sample();
  correlator.trace = true;
  const auto decoded = decodeCorrelator(encodeCorrelator(correlator));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(correlator.engine, decoded->engine);
  EXPECT_EQ(correlator.class_id, decoded->class_id);
  EXPECT_EQ(correlator.handle, decoded->handle);
  EXPECT_TRUE(decoded->trace);
}

TEST(Correlator, AnyOtherHeaderIsNotDecoded) {
  for (const size_t at : {0U, 1U, 2U, 4U, 7U, 8U, 9U}) {
    CorrelatorBytes bytes = encodeCorrelator(sample());
    bytes[at] = static_cast<uint8_t>(bytes[at] + 1);
    EXPECT_FALSE(decodeCorrelator(bytes)) << at;
  }
}

TEST(Correlator, ZeroBytesAreNotDecoded) {
  EXPECT_FALSE(decodeCorrelator(CorrelatorBytes()));
}

}  // namespace
