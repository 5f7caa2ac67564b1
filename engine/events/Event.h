#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "registry/Answer.h"

namespace armengine {

/// What an event is about beyond the message types of the requests.
enum EventType : int32_t {
  EVENT_ABANDONED = 101,  ///< an open instance of a process that has ended
  EVENT_FORGOTTEN = 102,  ///< an application that nobody uses any more
  EVENT_EXPIRED = 103     ///< the statistics of a class that nobody uses any more
};

/// One request that was applied, or something that the engine did by itself.  What has no fixed
/// size, the data block or bytes of the request, travels beside it as the payload.
struct Event {
  uint64_t number = 0;  ///< counts all events of an engine from 1; a gap is what was dropped
  uint64_t time = 0;    ///< the request's stamp or, without one, when it was applied: ns since 1970
  int32_t type = 0;     ///< message type or EventType
  int32_t process = 0;
  uint32_t thread = 0;
  int32_t id = 0;      ///< the number that the request names: of an application, class or instance
  int32_t result = 0;  ///< the answer
  std::array<int32_t, 3> values = {};  ///< completion status and flags, or the value words
  int32_t data_size = 0;               ///< of the request's block, as its program gave it
  uint32_t payload_size = 0;
  Subject subject;
};

using Payload = std::vector<uint8_t>;

}  // namespace armengine
