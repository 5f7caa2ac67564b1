#include "registry/Correlator.h"

#include <algorithm>
#include <cstddef>

namespace armengine {

namespace {

constexpr std::size_t LENGTH_AT = 0;
constexpr std::size_t FORMAT_AT = 2;
constexpr std::size_t FLAGS_AT = 3;
constexpr std::size_t MAGIC_AT = 4;
constexpr std::size_t VERSION_AT = 8;
constexpr std::size_t CLASS_AT = 12;
constexpr std::size_t HANDLE_AT = 16;
constexpr std::size_t ENGINE_AT = 20;
constexpr std::size_t TRACE_AT = 28;
constexpr std::size_t SPAN_AT = 44;
constexpr std::size_t IGNORE_AT = 109;
constexpr std::size_t CHECK_AT = 164;

constexpr uint8_t FORMAT = 193;
constexpr uint8_t TRACED_FLAG = 0x80;
constexpr uint8_t TRACE_FLAG = 0x40;
constexpr uint8_t IGNORE_CHILDREN = 0x01;
constexpr uint32_t MAGIC = 0x41524D43;  // "ARMC"
constexpr uint16_t VERSION = 2;

template <typename T>
void put(CorrelatorBytes* bytes, std::size_t at, T value) {
  for (std::size_t i = sizeof(T); i-- > 0; value = static_cast<T>(value >> 8)) {
    (*bytes)[at + i] = static_cast<uint8_t>(value & 0xFF);
  }
}

template <typename T>
T get(const CorrelatorBytes& bytes, std::size_t at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value = static_cast<T>(value << 8 | bytes[at + i]);
  }
  return value;
}

constexpr std::array<uint32_t, 256> makeCrcTable() {
  constexpr uint32_t POLYNOMIAL = 0xEDB88320;
  std::array<uint32_t, 256> table = {};
  for (uint32_t byte = 0; byte < table.size(); ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? POLYNOMIAL : 0);
    table[byte] = value;
  }
  return table;
}

constexpr std::array<uint32_t, 256> CRC_TABLE = makeCrcTable();

uint32_t checkValue(const CorrelatorBytes& bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < CHECK_AT; ++i) crc = CRC_TABLE[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

}  // namespace

CorrelatorBytes encodeCorrelator(const Correlator& correlator) {
  CorrelatorBytes bytes = {};
  put(&bytes, LENGTH_AT, static_cast<uint16_t>(bytes.size()));
  bytes[FORMAT_AT] = FORMAT;
  bytes[FLAGS_AT] = static_cast<uint8_t>((correlator.traced ? TRACED_FLAG : 0) |
                                         (correlator.trace ? TRACE_FLAG : 0));
  put(&bytes, MAGIC_AT, MAGIC);
  put(&bytes, VERSION_AT, VERSION);
  put(&bytes, CLASS_AT, static_cast<uint32_t>(correlator.class_id));
  put(&bytes, HANDLE_AT, static_cast<uint32_t>(correlator.handle));
  put(&bytes, ENGINE_AT, correlator.engine);
  std::copy(correlator.trace_id.begin(), correlator.trace_id.end(), &bytes[TRACE_AT]);
  std::copy(correlator.span_id.begin(), correlator.span_id.end(), &bytes[SPAN_AT]);
  bytes[IGNORE_AT] = correlator.traced ? 0 : IGNORE_CHILDREN;
  put(&bytes, CHECK_AT, checkValue(bytes));
  return bytes;
}

std::optional<Correlator> decodeCorrelator(const CorrelatorBytes& bytes) {
  const bool known = get<uint16_t>(bytes, LENGTH_AT) == bytes.size() &&
                     bytes[FORMAT_AT] == FORMAT && get<uint32_t>(bytes, MAGIC_AT) == MAGIC &&
                     get<uint16_t>(bytes, VERSION_AT) == VERSION &&
                     get<uint32_t>(bytes, CHECK_AT) == checkValue(bytes);
  if (!known) return std::nullopt;
  Correlator correlator;
  correlator.engine = get<uint64_t>(bytes, ENGINE_AT);
  correlator.class_id = static_cast<int32_t>(get<uint32_t>(bytes, CLASS_AT));
  correlator.handle = static_cast<int32_t>(get<uint32_t>(bytes, HANDLE_AT));
  std::copy_n(&bytes[TRACE_AT], correlator.trace_id.size(), correlator.trace_id.begin());
  std::copy_n(&bytes[SPAN_AT], correlator.span_id.size(), correlator.span_id.begin());
  correlator.traced = (bytes[IGNORE_AT] & IGNORE_CHILDREN) == 0;
  correlator.trace = (bytes[FLAGS_AT] & TRACE_FLAG) != 0;
  return correlator;
}

}  // namespace armengine
