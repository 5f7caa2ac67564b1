#pragma once

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "registry/Registry.h"

namespace armengine {

/// Decodes requests, applies them to a registry and makes the replies.  Whatever a request holds,
/// it gets a reply: its sender waits for one without a limit.  One thread.
class Dispatcher {
 public:
  explicit Dispatcher(Registry& registry) : registry_(registry) {}

  TArmReplyMessage answer(const TArmMessage& request);

 private:
  Started start(const TArmStartBody& body);
  Started report(const TArmReportBody& body);
  int32_t complete(const TArmCompleteBody& body);
  int32_t addMetricData(const TArmMetricDataBody& body) const;
  int32_t statusFor(const TArmMessage& request);
  bool isKnown(int32_t id) const { return registry_.isClass(id) || registry_.isOpen(id); }

  Registry& registry_;
};

}  // namespace armengine
