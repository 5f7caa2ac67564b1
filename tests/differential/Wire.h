#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace differential {

/// Reads the little-endian fields of a script; whoever sends it is trusted.
class WireReader {
 public:
  explicit WireReader(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}

  template <typename Number>
  Number number() {
    Number value;
    std::memcpy(&value, bytes(sizeof value), sizeof value);
    return value;
  }
  std::string text() {
    const uint32_t length = number<uint32_t>();
    return std::string(reinterpret_cast<const char*>(bytes(length)), length);
  }
  const uint8_t* bytes(size_t count) {
    at_ += count;
    return bytes_.data() + at_ - count;
  }

 private:
  std::vector<uint8_t> bytes_;
  size_t at_ = 0;
};

/// Collects the fields of what was seen.
class WireWriter {
 public:
  template <typename Number>
  void number(Number value) {
    bytes(&value, sizeof value);
  }
  void bytes(const void* from, size_t count) {
    const uint8_t* first = static_cast<const uint8_t*>(from);
    bytes_.insert(bytes_.end(), first, first + count);
  }
  void text(const std::string& text) {
    number(static_cast<uint32_t>(text.size()));
    bytes(text.data(), text.size());
  }
  const std::vector<uint8_t>& all() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace differential
