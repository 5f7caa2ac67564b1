#pragma once

#include <array>

#include "base/Counter.h"
#include "base/MessageNames.h"

namespace armengine {

/// What an engine counts about itself.  One thread changes it, any thread reads.
struct EngineCounters {
  /// Requests of a message type; those of all types that are none together.
  Counter& requestsOf(int32_t type) { return requests_[indexOf(type)]; }
  const Counter& requestsOf(int32_t type) const { return requests_[indexOf(type)]; }

  Counter unknown_applications;  ///< requests refused for their application id
  Counter unknown_classes;
  Counter unknown_handles;  ///< among them every second stop
  Counter unknown_messages;
  Counter bad_lengths;
  Counter applications_over_limit;  ///< registrations that became "other"
  Counter classes_over_limit;
  Counter instances_over_limit;  ///< starts that were refused
  Counter clocks_stepped_back;   ///< stops with a stamp before their start's
  Counter parents_not_known;     ///< correlators that could not be read; they started new traces
  Counter metrics_over_limit;    ///< user metrics that had no room in their class
  Counter expired_classes;
  Counter departed_processes;

 private:
  static std::size_t indexOf(int32_t type) {
    return isMessageType(type) ? static_cast<std::size_t>(type) : 0;
  }
  std::array<Counter, MESSAGE_TYPES> requests_;
};

}  // namespace armengine
