#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// What libFuzzer calls with each input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

/// The bytes of one fuzzer input, read from the front.  What lies behind the end reads as zero, so
/// that every input means something.
class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  bool empty() const { return left_ == 0; }
  std::size_t left() const { return left_; }

  uint8_t byte() { return number<uint8_t>(); }
  uint16_t half() { return number<uint16_t>(); }
  uint32_t word() { return number<uint32_t>(); }
  bool flag() { return (byte() & 1) != 0; }

  /// A number below a limit that is not 0.
  uint32_t below(uint32_t limit) { return (limit > 256 ? word() : byte()) % limit; }

  /// Up to count bytes.
  std::string bytes(std::size_t count) {
    if (count > left_) count = left_;
    std::string taken(reinterpret_cast<const char*>(data_), count);
    skip(count);
    return taken;
  }
  std::string rest() { return bytes(left_); }

  /// A text of up to limit bytes without a zero byte, its length given by the input.
  std::string text(std::size_t limit) {
    std::string taken = bytes(half() % (limit + 1));
    return taken.substr(0, taken.find('\0'));
  }

 private:
  template <typename T>
  T number() {
    T value = 0;
    const std::size_t count = left_ < sizeof value ? left_ : sizeof value;
    std::memcpy(&value, data_, count);
    skip(count);
    return value;
  }
  void skip(std::size_t count) {
    data_ += count;
    left_ -= count;
  }

  const uint8_t* data_;
  std::size_t left_;
};
