#include "text/Hex.h"

namespace armtext {

namespace {

int digitOf(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

void appendHex(std::string* text, const uint8_t* bytes, std::size_t count) {
  constexpr const char* DIGITS = "0123456789abcdef";
  for (std::size_t i = 0; i < count; ++i) {
    *text += DIGITS[bytes[i] >> 4];
    *text += DIGITS[bytes[i] & 0x0F];
  }
}

std::string hexText(const uint8_t* bytes, std::size_t count) {
  std::string text;
  text.reserve(count * 2);
  appendHex(&text, bytes, count);
  return text;
}

std::optional<std::string> bytesOfHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = digitOf(text[i]);
    const int low = digitOf(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

}  // namespace armtext
