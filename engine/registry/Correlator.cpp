#include "registry/Correlator.h"

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
constexpr std::size_t IGNORE_AT = 109;

constexpr uint8_t FORMAT = 193;
constexpr uint8_t TRACE_FLAG = 0x40;
constexpr uint32_t MAGIC = 0x41524D43;  // "ARMC"
constexpr uint16_t VERSION = 1;

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

}  // namespace

CorrelatorBytes encodeCorrelator(const Correlator& correlator) {
  CorrelatorBytes bytes = {};
  put(&bytes, LENGTH_AT, static_cast<uint16_t>(bytes.size()));
  bytes[FORMAT_AT] = FORMAT;
  bytes[FLAGS_AT] = correlator.trace ? TRACE_FLAG : 0;
  put(&bytes, MAGIC_AT, MAGIC);
  put(&bytes, VERSION_AT, VERSION);
  put(&bytes, CLASS_AT, static_cast<uint32_t>(correlator.class_id));
  put(&bytes, HANDLE_AT, static_cast<uint32_t>(correlator.handle));
  put(&bytes, ENGINE_AT, correlator.engine);
  bytes[IGNORE_AT] = 0;
  return bytes;
}

std::optional<Correlator> decodeCorrelator(const CorrelatorBytes& bytes) {
  const bool known = get<uint16_t>(bytes, LENGTH_AT) == bytes.size() &&
                     bytes[FORMAT_AT] == FORMAT && get<uint32_t>(bytes, MAGIC_AT) == MAGIC &&
                     get<uint16_t>(bytes, VERSION_AT) == VERSION;
  if (!known) return std::nullopt;
  Correlator correlator;
  correlator.engine = get<uint64_t>(bytes, ENGINE_AT);
  correlator.class_id = static_cast<int32_t>(get<uint32_t>(bytes, CLASS_AT));
  correlator.handle = static_cast<int32_t>(get<uint32_t>(bytes, HANDLE_AT));
  correlator.trace = (bytes[FLAGS_AT] & TRACE_FLAG) != 0;
  return correlator;
}

}  // namespace armengine
