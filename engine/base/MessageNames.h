#pragma once

#include <array>
#include <cstdint>

#include "arm/TArmMessage.h"

namespace armengine {

inline constexpr int32_t MESSAGE_TYPES = ARM_MSG_ASSOCIATE_METRIC_DATA + 1;

/// The names of message types in everything that the engine tells, null for types that are none.
inline constexpr std::array<const char*, MESSAGE_TYPES> MESSAGE_NAMES = [] {
  std::array<const char*, MESSAGE_TYPES> names = {};
  names[ARM_MSG_INIT] = "init";
  names[ARM_MSG_GETID] = "getid";
  names[ARM_MSG_START] = "start";
  names[ARM_MSG_UPDATE] = "update";
  names[ARM_MSG_STOP] = "stop";
  names[ARM_MSG_END] = "end";
  names[ARM_MSG_COMPLETE_TRANS] = "complete";
  names[ARM_MSG_TRANS_REPORT] = "report";
  names[ARM_MSG_TRANS_INSTANCE_REPORT] = "instance_report";
  names[ARM_MSG_COMPLETE_TRANS_INSTANCE] = "instance_complete";
  names[ARM_MSG_ASSOCIATE_METRIC_DATA] = "metric_data";
  return names;
}();

inline constexpr const char* UNKNOWN_MESSAGE = "unknown";

inline bool isMessageType(int32_t type) {
  return type >= 0 && type < MESSAGE_TYPES &&
         MESSAGE_NAMES[static_cast<std::size_t>(type)] != nullptr;
}

inline const char* nameOfMessage(int32_t type) {
  return isMessageType(type) ? MESSAGE_NAMES[static_cast<std::size_t>(type)] : UNKNOWN_MESSAGE;
}

}  // namespace armengine
