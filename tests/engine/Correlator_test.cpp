#include "registry/Correlator.h"

#include <gtest/gtest.h>

#include <string>

#include "text/Hex.h"

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
  for (uint8_t i = 0; i < 16; ++i) correlator.trace_id[i] = static_cast<uint8_t>(0xA0 + i);
  for (uint8_t i = 0; i < 8; ++i) correlator.span_id[i] = static_cast<uint8_t>(0xB0 + i);
  return correlator;
}

/// CRC-32 as zip files have it, computed bit by bit.
uint32_t crcOf(const uint8_t* bytes, size_t count) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < count; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
  }
  return crc ^ 0xFFFFFFFF;
}

TEST(Correlator, BytesAreInNetworkOrder) {
  const CorrelatorBytes bytes = encodeCorrelator(sample());
  const std::string expected(
      "\x00\xA8\xC1\x80"
      "ARMC"
      "\x00\x02\x00\x00"
      "\x01\x02\x03\x04"
      "\x7F\xFF\xFF\xFE"
      "\x11\x22\x33\x44\x55\x66\x77\x88"
      "\xA0\xA1\xA2\xA3\xA4\xA5\xA6\xA7\xA8\xA9\xAA\xAB\xAC\xAD\xAE\xAF"
      "\xB0\xB1\xB2\xB3\xB4\xB5\xB6\xB7",
      52);
  EXPECT_EQ(expected, std::string(bytes.begin(), bytes.begin() + 52));
  for (size_t i = 52; i < 164; ++i) EXPECT_EQ(0, bytes[i]) << i;
}

TEST(Correlator, CheckValueIsTheCrcOfAllBytesBeforeIt) {
  EXPECT_EQ(0xCBF43926U, crcOf(reinterpret_cast<const uint8_t*>("123456789"), 9));
  const CorrelatorBytes bytes = encodeCorrelator(sample());
  const uint32_t crc = crcOf(bytes.data(), 164);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(crc >> (24 - 8 * i) & 0xFF, bytes[164 + i]);
}

TEST(Correlator, AnyChangedByteIsNoticed) {
  for (size_t at = 0; at < 168; ++at) {
    CorrelatorBytes bytes = encodeCorrelator(sample());
    bytes[at] ^= 0x10;
    EXPECT_FALSE(decodeCorrelator(bytes)) << at;
  }
}

TEST(Correlator, ChildrenOfOneThatIsNotTracedAreIgnored) {
  Correlator correlator = sample();
  correlator.traced = false;
  const CorrelatorBytes bytes = encodeCorrelator(correlator);
  EXPECT_EQ(1, bytes[109]);
  EXPECT_EQ(0, bytes[3]);
  EXPECT_FALSE(decodeCorrelator(bytes)->traced);
}

TEST(Correlator, TextFormBeginsWithLengthFormatFlagsAndMagic) {
  const CorrelatorBytes bytes = encodeCorrelator(sample());
  const std::string text = armtext::hexText(bytes.data(), bytes.size());
  EXPECT_EQ(336U, text.size());
  EXPECT_EQ("00a8c18041524d43", text.substr(0, 16));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), armtext::bytesOfHex(text));
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
  EXPECT_EQ(0xC0, encodeCorrelator(correlator)[3]);
}

TEST(Correlator, WhatIsEncodedIsDecoded) {
  Correlator correlator = sample();
  correlator.trace = true;
  const auto decoded = decodeCorrelator(encodeCorrelator(correlator));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(correlator.engine, decoded->engine);
  EXPECT_EQ(correlator.class_id, decoded->class_id);
  EXPECT_EQ(correlator.handle, decoded->handle);
  EXPECT_EQ(correlator.trace_id, decoded->trace_id);
  EXPECT_EQ(correlator.span_id, decoded->span_id);
  EXPECT_TRUE(decoded->traced);
  EXPECT_TRUE(decoded->trace);
}

TEST(Correlator, ZeroBytesAreNotDecoded) {
  EXPECT_FALSE(decodeCorrelator(CorrelatorBytes()));
}

}  // namespace
