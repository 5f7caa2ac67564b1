#pragma once

#include <cstdint>

#include "arm.h"

namespace armengine {

/// Gives positive numbers one after the other, never IGNOREID, and begins anew after the last.
class Ids {
 public:
  /// The first number after the last one that is not in use.
  template <typename InUse>
  int32_t next(InUse&& in_use) {
    do {
      last_ = last_ < IGNOREID - 1 ? last_ + 1 : 1;
    } while (in_use(last_));
    return last_;
  }

  void continueAfter(int32_t id) { last_ = id; }

 private:
  int32_t last_ = 0;
};

}  // namespace armengine
