#pragma once

#include <array>

#include "registry/Figure.h"

namespace armengine {

/// What an engine counts about itself.  One thread changes it, any thread reads.
struct EngineFigures {
  static constexpr std::size_t MESSAGE_TYPES = 20;  ///< 0: any unknown type

  std::array<Figure, MESSAGE_TYPES> requests;  ///< by message type
  Figure unknown_applications;                 ///< requests refused for their application id
  Figure unknown_classes;
  Figure unknown_handles;  ///< among them every second stop
  Figure unknown_messages;
  Figure bad_lengths;
  Figure applications_over_limit;  ///< registrations that became "other"
  Figure classes_over_limit;
  Figure instances_over_limit;  ///< starts that were refused
  Figure clocks_stepped_back;   ///< stops with a stamp before their start's
  Figure parents_not_known;     ///< correlators that could not be read; they started new traces
  Figure metrics_over_limit;    ///< user metrics that had no room in their class
  Figure expired_classes;
  Figure departed_processes;
};

}  // namespace armengine
