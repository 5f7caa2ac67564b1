#pragma once

#include <cstddef>
#include <cstring>

#include "arm.h"
#include "arm/TArmMessage.h"
#include "base/Time.h"
#include "registry/Registry.h"

namespace armengine {

// What the bodies of requests have in common.

inline uint64_t nanoseconds(const TArmTimeStamp& time) {
  return uint64_t{time.seconds} * SECOND + time.nanoseconds;
}

/// The data block of a request; null without one.
template <std::size_t N>
const uint8_t* blockOf(const uint8_t (&data)[N], int32_t data_size) {
  return data_size > 0 ? data : nullptr;
}

/// The block of a start or a report.
class Format1Block {
 public:
  Format1Block(const uint8_t (&data)[ARM_FORMAT1_SIZE], int32_t data_size)
      : block_(blockOf(data, data_size)) {}

  bool wantsCorrelator() const { return has(ARM_CorrReq_f); }
  StartData startData() const {
    StartData data;
    data.trace = has(ARM_TraceReq_f);
    data.metrics = block_;
    if (has(ARM_CorrPar_f)) {
      constexpr std::size_t AT = offsetof(arm_user_data1_t, correlator);
      std::memcpy(data.parent.emplace().data(), block_ + AT, ARM_CORRELATOR_FIELD);
    }
    return data;
  }

 private:
  bool has(unsigned flag) const {
    if (block_ == nullptr) return false;
    int32_t format = 0;
    std::memcpy(&format, block_, sizeof format);
    return format == ARM_DATA_FORMAT_1 && (block_[offsetof(arm_user_data1_t, flags)] & flag) != 0;
  }

  const uint8_t* block_;
};

}  // namespace armengine
