#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace armtest {

using Bytes = std::vector<uint8_t>;

inline uint32_t word(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace armtest
