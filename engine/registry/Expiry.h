#pragma once

#include <algorithm>
#include <cstdint>

#include "registry/Catalogue.h"

namespace armengine {

/// Decides what nobody has used for so long that it goes.  Times are seconds of a steady clock.
class Expiry {
 public:
  ///   idle  unused statistics go after that time; 0: never
  explicit Expiry(uint64_t idle)
      : idle_(idle), grace_(idle > 0 ? std::min(idle, LONGEST_GRACE) : LONGEST_GRACE) {}

  uint64_t now() const { return now_; }
  /// Sets the time; whether it is time to look for what is over.
  bool isDue(uint64_t now) {
    now_ = now;
    if (now < next_) return false;
    next_ = now + std::clamp<uint64_t>(grace_ / 10, 1, 10);
    return true;
  }

  bool isOver(const Application& application) const {
    return application.departed && application.open_instances == 0 &&
           now_ - application.last_used >= grace_;
  }
  bool isOver(const ClassStatistics& statistics) const {
    return idle_ > 0 && statistics.open.get() == 0 && now_ - statistics.last_used >= idle_;
  }

 private:
  /// How long the ids of a process that has ended are kept: its children may go on with them.
  static constexpr uint64_t LONGEST_GRACE = 300;

  uint64_t idle_;
  uint64_t grace_;
  uint64_t now_ = 0;
  uint64_t next_ = 0;
};

}  // namespace armengine
