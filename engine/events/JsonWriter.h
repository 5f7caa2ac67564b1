#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace armengine {

/// Appends JSON to a text, one value after the other, without building it in memory first: outputs
/// write some hundred thousand values per second.
class JsonWriter {
 public:
  explicit JsonWriter(std::string* text) : text_(*text) {}

  JsonWriter& openObject() { return open('{'); }
  JsonWriter& closeObject() { return close('}'); }
  JsonWriter& openArray() { return open('['); }
  JsonWriter& closeArray() { return close(']'); }
  JsonWriter& key(std::string_view name);

  /// A string; each byte that is not UTF-8 becomes U+FFFD.
  JsonWriter& text(std::string_view value);
  /// A string of lower-case hexadecimal digits.
  JsonWriter& hex(const uint8_t* bytes, std::size_t count);
  JsonWriter& number(int64_t value);
  JsonWriter& number(uint64_t value);
  JsonWriter& number(int32_t value) { return number(int64_t{value}); }
  JsonWriter& number(uint32_t value) { return number(uint64_t{value}); }
  /// A finite number; others become null.
  JsonWriter& real(double value);
  JsonWriter& boolean(bool value);
  /// A string of decimal digits: numbers of 64 bits do not survive every reader.
  JsonWriter& digits(uint64_t value);
  JsonWriter& digits(int64_t value);
  /// JSON that is there already.
  JsonWriter& raw(std::string_view json);

 private:
  JsonWriter& open(char bracket);
  JsonWriter& close(char bracket);
  void separate();
  void escape(char byte);

  std::string& text_;
  bool first_ = true;
};

}  // namespace armengine
