#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "arm/TArmMessage.h"

namespace armengine {

/// Slots of the data blocks: six numbers of 8 bytes and a string of 32.
inline constexpr std::size_t METRIC_SLOTS = 7;

/// What a slot holds, as a program has described it with its transaction class.
enum class MetricType : uint8_t {
  none = 0,
  counter32 = 1,
  counter64 = 2,
  counter_ratio = 3,
  gauge32 = 4,
  gauge64 = 5,
  gauge_ratio = 6,
  id32 = 7,
  id64 = 8,
  string8 = 9,
  string32 = 10
};

inline bool isCounter(MetricType type) {
  return type >= MetricType::counter32 && type <= MetricType::counter_ratio;
}
inline bool isGauge(MetricType type) {
  return type >= MetricType::gauge32 && type <= MetricType::gauge_ratio;
}

struct MetricDescription {
  MetricType type = MetricType::none;  ///< none: the slot is not described
  std::string name;                    ///< UTF-8, never empty in a described slot
};

using MetricDescriptions = std::array<MetricDescription, METRIC_SLOTS>;

/// Reads a format-101 block.  Lenient: what cannot be described is left out, and a block whose
/// flags name no slot at all is taken to describe every slot that has a type and a name.
MetricDescriptions readDescriptions(const uint8_t (&block)[ARM_FORMAT101_SIZE]);

/// A value of a described slot.
struct MetricValue {
  enum class Kind { none, whole, unsigned_whole, real, text };
  Kind kind = Kind::none;  ///< none: no valid value was given
  int64_t whole = 0;
  uint64_t unsigned_whole = 0;
  double real = 0;
  std::string_view text;  ///< bytes of the block, not necessarily UTF-8

  /// The number; 0 for a text.
  double number() const;
};

/// Reads one slot of a format-1 block; nothing when its valid bit is not set, its divisor is 0, or
/// the block is of another format.
///   slot  0 to 6
MetricValue readMetric(const uint8_t* block, std::size_t slot, MetricType type);

}  // namespace armengine
