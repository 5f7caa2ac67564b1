#include "armrun/CorrelatorText.h"

namespace armrun {

namespace {

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string toHex(const arm_correlator_t& correlator) {
  constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * sizeof correlator.bytes);
  for (const arm_uint8_t byte : correlator.bytes) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 0xF];
  }
  return text;
}

bool fromHex(const std::string& text, arm_correlator_t* correlator) {
  if (text.size() != 2 * sizeof correlator->bytes) return false;
  for (std::size_t i = 0; i < sizeof correlator->bytes; ++i) {
    const int high = digitOf(text[2 * i]);
    const int low = digitOf(text[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    correlator->bytes[i] = static_cast<arm_uint8_t>(high * 16 + low);
  }
  return true;
}

}  // namespace armrun
