#pragma once

#include <array>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "events/EventOutlet.h"
#include "registry/Processes.h"
#include "registry/Registry.h"

namespace armengine {

/// Decodes requests, applies them to a registry and makes the replies.  Whatever a request holds,
/// it gets a reply: its sender waits for one without a limit.  One thread.
class Dispatcher {
 public:
  ///   events  who is told what has been applied; null for nobody
  ///   watch   who is told whose requests have come; null for nobody
  explicit Dispatcher(Registry& registry, EventPublisher* events = nullptr,
                      ProcessWatch* watch = nullptr)
      : registry_(registry), events_(events), watch_(watch) {}
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Applies a request and publishes its event.
  TArmReplyMessage answer(const TArmMessage& request) {
    const TArmReplyMessage reply = apply(request);
    publish();
    return reply;
  }
  /// Applies a request.  Its event waits until publish is called, so that answers go out first; the
  /// request must stay where it is until then.
  TArmReplyMessage apply(const TArmMessage& request);
  /// Publishes the events of what has been applied.
  void publish();

  /// Ends the instances of processes that have ended, and drops what nobody uses any more.  To be
  /// called about once per second.
  void tidy();

 private:
  Started start(const TArmMessage& request);
  Started report(const TArmMessage& request);
  int32_t init(const TArmMessage& request);
  int32_t getid(const TArmMessage& request);
  int32_t update(const TArmMessage& request);
  int32_t stop(const TArmMessage& request);
  int32_t complete(const TArmCompleteBody& body);
  int32_t addMetricData(const TArmMetricDataBody& body);
  int32_t statusFor(const TArmMessage& request);
  int32_t unknownMessage();
  void setPayload(const uint8_t* bytes, std::size_t size);
  void finishEvent(const TArmMessage& request, int32_t result);
  void publishOwn(int32_t type, int32_t id, const Applied& applied);
  void endInstancesOf(const Departed& departed);
  void note(const TArmMessage& request);
  bool isKnown(int32_t id) const { return registry_.isClass(id) || registry_.isOpen(id); }

  Registry& registry_;
  EventPublisher* events_;
  ProcessWatch* watch_;
  uint64_t now_ = 0;  ///< of the current request, as bootTime
  struct Waiting {
    Event event;
    const uint8_t* payload = nullptr;
  };
  static constexpr std::size_t MOST_WAITING = 64;
  /// Events that are to be published; the last one is being made.
  std::array<Waiting, MOST_WAITING> waiting_;
  std::size_t waiting_count_ = 0;
  Event* event_ = &waiting_[0].event;
  const uint8_t* payload_ = nullptr;
};

}  // namespace armengine
