#include "registry/UserMetrics.h"

#include <cstring>

#include "armext.h"
#include "text/Utf8.h"

namespace armengine {

namespace {

constexpr std::size_t STRING_SLOT = 6;
constexpr unsigned FIRST_SLOT_BIT = ARM_Metric1_f;

bool isNamed(unsigned flags, std::size_t slot) {
  return (flags & FIRST_SLOT_BIT >> slot) != 0;
}

bool fits(int32_t type, std::size_t slot) {
  if (slot == STRING_SLOT) return type == ARM_String32;
  return type >= ARM_Counter32 && type <= ARM_String8;
}

std::string nameOf(const arm_metric_description_t& description, std::size_t slot) {
  const std::string name =
      armtext::validUtf8({description.name, strnlen(description.name, sizeof description.name)});
  return name.empty() ? "metric" + std::to_string(slot + 1) : name;
}

MetricValue whole(int64_t value) {
  MetricValue metric;
  metric.kind = MetricValue::Kind::whole;
  metric.whole = value;
  return metric;
}

MetricValue unsignedWhole(uint64_t value) {
  MetricValue metric;
  metric.kind = MetricValue::Kind::unsigned_whole;
  metric.unsigned_whole = value;
  return metric;
}

MetricValue ratio(double value, int32_t divisor) {
  MetricValue metric;
  if (divisor == 0) return metric;
  metric.kind = MetricValue::Kind::real;
  metric.real = value / divisor;
  return metric;
}

MetricValue text(const uint8_t* bytes, std::size_t size) {
  MetricValue metric;
  metric.kind = MetricValue::Kind::text;
  const char* start = reinterpret_cast<const char*>(bytes);
  metric.text = {start, strnlen(start, size)};
  return metric;
}

template <typename T>
T read(const uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

}  // namespace

MetricDescriptions readDescriptions(const uint8_t (&block)[ARM_FORMAT101_SIZE]) {
  arm_user_data101_t described;
  static_assert(sizeof described == sizeof block);
  std::memcpy(&described, block, sizeof described);
  MetricDescriptions descriptions;
  const bool all = (described.flags[1] & ARM_AllMetrics_f) == 0;
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    const arm_metric_description_t& given = described.metric[slot];
    const bool named = all ? given.name[0] != '\0' : isNamed(described.flags[1], slot);
    if (!named || !fits(given.type, slot)) continue;
    descriptions[slot] = {static_cast<MetricType>(given.type), nameOf(given, slot)};
  }
  return descriptions;
}

double MetricValue::number() const {
  switch (kind) {
    case Kind::whole:
      return static_cast<double>(whole);
    case Kind::unsigned_whole:
      return static_cast<double>(unsigned_whole);
    case Kind::real:
      return real;
    case Kind::none:
    case Kind::text:
      break;
  }
  return 0;
}

// Counters and ids have no sign, so that one that passes half of its range goes on; gauges have.
MetricValue readMetric(const uint8_t* block, std::size_t slot, MetricType type) {
  constexpr std::size_t DATA_FLAGS_AT = offsetof(arm_user_data1_t, flags);
  if (read<int32_t>(block) != ARM_DATA_FORMAT_1 || !isNamed(block[DATA_FLAGS_AT + 1], slot))
    return {};
  const uint8_t* bytes = block + offsetof(arm_user_data1_t, metric) + slot * sizeof(arm_metric_t);
  switch (type) {
    case MetricType::counter32:
    case MetricType::id32:
      return unsignedWhole(read<uint32_t>(bytes));
    case MetricType::counter64:
    case MetricType::id64:
      return unsignedWhole(read<uint64_t>(bytes));
    case MetricType::gauge32:
      return whole(read<int32_t>(bytes));
    case MetricType::gauge64:
      return whole(read<int64_t>(bytes));
    case MetricType::counter_ratio:
      return ratio(read<uint32_t>(bytes), read<int32_t>(bytes + 4));
    case MetricType::gauge_ratio:
      return ratio(read<int32_t>(bytes), read<int32_t>(bytes + 4));
    case MetricType::string8:
      return text(bytes, sizeof(arm_metric_t));
    case MetricType::string32:
      return text(bytes, sizeof(arm_user_data1_t::string32));
    case MetricType::none:
      break;
  }
  return {};
}

}  // namespace armengine
