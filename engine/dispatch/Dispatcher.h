#pragma once

#include <array>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "dispatch/ProcessWatch.h"
#include "dispatch/RequestEvents.h"
#include "events/EventPublisher.h"
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
  Answer addApplication(const TArmMessage& request);
  Answer addClass(const TArmMessage& request);
  Started start(const TArmMessage& request);
  Answer update(const TArmMessage& request);
  Answer stop(const TArmStopBody& body);
  Started report(const TArmMessage& request);
  Answer complete(const TArmCompleteBody& body);
  Answer addMetricData(const TArmMetricDataBody& body);
  Answer answerTo(const TArmMessage& request);
  void observe(const TArmMessage& request);
  void keepEvent(const TArmMessage& request, Answer&& answer);
  void publishOwn(int32_t type, int32_t id, const Subject& subject);
  void endInstancesOf(const Departed& departed);
  bool hasListeners() const { return events_ != nullptr && events_->isUsed(); }

  Registry& registry_;
  EventPublisher* events_;
  ProcessWatch* watch_;
  uint64_t now_ = 0;  ///< of the current request, as bootTime
  static constexpr std::size_t MOST_WAITING = 64;
  /// Events that are to be published.
  std::array<PendingEvent, MOST_WAITING> waiting_;
  std::size_t waiting_count_ = 0;
};

}  // namespace armengine
