#pragma once

#include <cstdint>

#include "arm/TArmMessage.h"
#include "events/Event.h"
#include "registry/Answer.h"

namespace armengine {

/// An event, and the block or bytes of the request that it is about; null without any.
struct PendingEvent {
  Event event;
  const uint8_t* payload = nullptr;
};

/// Makes the event of a request that has been answered.  The payload is within the request.
void makeEvent(const TArmMessage& request, Answer&& answer, PendingEvent* made);

}  // namespace armengine
