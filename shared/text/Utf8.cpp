#include "text/Utf8.h"

#include <cstdint>

namespace armtext {

namespace {

bool continues(std::string_view text, std::size_t at) {
  return at < text.size() && (static_cast<uint8_t>(text[at]) & 0xC0) == 0x80;
}

}  // namespace

std::size_t characterLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto first = static_cast<uint8_t>(text[0]);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4 || !continues(text, 1)) return 0;
  if (first < 0xE0) return 2;
  const auto second = static_cast<uint8_t>(text[1]);
  if (!continues(text, 2)) return 0;
  // Too long forms, surrogates, and what lies beyond the last character.
  if (first < 0xF0) {
    const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F);
    return wrong ? 0 : 3;
  }
  const bool wrong = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return wrong || !continues(text, 3) ? 0 : 4;
}

std::string validUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length > 0) {
      valid.append(text.substr(0, length));
    } else {
      valid += "\xEF\xBF\xBD";
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return valid;
}

}  // namespace armtext
