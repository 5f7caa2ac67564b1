#include "events/JsonWriter.h"

#include <charconv>
#include <cmath>

#include "text/Hex.h"
#include "text/Utf8.h"

namespace armengine {

namespace {

template <typename T>
void appendNumber(std::string* text, T value) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  text->append(digits, end);
}

bool isPlain(char byte) {
  const auto code = static_cast<uint8_t>(byte);
  return code >= 0x20 && code < 0x7F && byte != '"' && byte != '\\';
}

}  // namespace

void JsonWriter::separate() {
  if (!first_) text_ += ',';
  first_ = false;
}

JsonWriter& JsonWriter::open(char bracket) {
  separate();
  text_ += bracket;
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
  text_ += bracket;
  first_ = false;
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  text(name);
  text_ += ':';
  first_ = true;
  return *this;
}

void JsonWriter::escape(char byte) {
  switch (byte) {
    case '"':
    case '\\':
      text_ += '\\';
      text_ += byte;
      return;
    case '\n':
      text_ += "\\n";
      return;
    case '\t':
      text_ += "\\t";
      return;
    default:
      const auto code = static_cast<uint8_t>(byte);
      text_ += "\\u00";
      armtext::appendHex(&text_, &code, 1);
  }
}

JsonWriter& JsonWriter::text(std::string_view value) {
  separate();
  text_ += '"';
  while (!value.empty()) {
    std::size_t plain = 0;
    while (plain < value.size() && isPlain(value[plain])) ++plain;
    text_.append(value.data(), plain);
    value.remove_prefix(plain);
    if (value.empty()) break;
    const std::size_t length = armtext::characterLength(value);
    if (length > 1) {
      text_.append(value.data(), length);
    } else if (length == 1) {
      escape(value[0]);
    } else {
      text_ += "\xEF\xBF\xBD";
    }
    value.remove_prefix(length > 0 ? length : 1);
  }
  text_ += '"';
  return *this;
}

JsonWriter& JsonWriter::hex(const uint8_t* bytes, std::size_t count) {
  separate();
  text_ += '"';
  armtext::appendHex(&text_, bytes, count);
  text_ += '"';
  return *this;
}

JsonWriter& JsonWriter::number(int64_t value) {
  separate();
  appendNumber(&text_, value);
  return *this;
}

JsonWriter& JsonWriter::number(uint64_t value) {
  separate();
  appendNumber(&text_, value);
  return *this;
}

JsonWriter& JsonWriter::real(double value) {
  if (!std::isfinite(value)) return raw("null");
  separate();
  appendNumber(&text_, value);
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  return raw(value ? "true" : "false");
}

JsonWriter& JsonWriter::digits(uint64_t value) {
  separate();
  text_ += '"';
  appendNumber(&text_, value);
  text_ += '"';
  return *this;
}

JsonWriter& JsonWriter::digits(int64_t value) {
  separate();
  text_ += '"';
  appendNumber(&text_, value);
  text_ += '"';
  return *this;
}

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  text_ += json;
  return *this;
}

}  // namespace armengine
