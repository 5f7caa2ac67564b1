#include "program/Service.h"

#include <algorithm>

#include "ipc/CIPCUtils.h"

namespace armengine {

namespace {

constexpr std::chrono::seconds BETWEEN_TIDYINGS{1};
constexpr std::chrono::milliseconds BETWEEN_DELIVERIES{1};

}  // namespace

bool Service::run() {
  TArmMessage request;
  for (;;) {
    const auto limit =
        undelivered_.empty() ? std::chrono::milliseconds(BETWEEN_TIDYINGS) : BETWEEN_DELIVERIES;
    const Taken taken = queues_.requests().take(request, limit);
    if (taken == Taken::stopped) return false;
    if (taken == Taken::interrupted) return true;
    if (taken == Taken::request) serve(request);
    deliverAgain();
    tidyNowAndThen();
  }
}

void Service::serve(const TArmMessage& request) {
  forgetUndelivered(request.sender_id);
  const TArmReplyMessage reply = dispatcher_.answer(request);
  ++served_;
  const bool certain = doubtful_ == 0;
  if (doubtful_ > 0) --doubtful_;
  ReplyWriter& replies = queues_.replies();
  if (certain && replies.putUnlessCrowded(request.sender_id, reply) == Delivery::linked) return;
  // Its sender may be about to wait for it without a limit, so it is kept.
  undelivered_.push_back({request.sender_id, reply, std::nullopt});
}

/// A requester that makes another request waits for no earlier reply.
void Service::forgetUndelivered(const TIPCIdentifier& to) {
  const auto forget = [&to](const Undelivered& one) {
    return CIPCUtils::sameIPCIdentifiers(one.to, to);
  };
  undelivered_.erase(std::remove_if(undelivered_.begin(), undelivered_.end(), forget),
                     undelivered_.end());
}

void Service::deliverAgain() {
  const auto over = [this](Undelivered& one) { return deliver(one) || !isAlive(one.to); };
  undelivered_.erase(std::remove_if(undelivered_.begin(), undelivered_.end(), over),
                     undelivered_.end());
}

/// A requester whose call has failed for want of a head record must not find the reply in its next
/// call.  Once it waits, it waits for this reply, unless it has made another request before: what
/// is in the queue then is served first.
bool Service::deliver(Undelivered& one) {
  ReplyWriter& replies = queues_.replies();
  if (!one.due && replies.isWaiting(one.to)) one.due = served_ + queues_.requests().depth();
  if (!one.due || served_ < *one.due) return false;
  return replies.putToWaiting(one.to, one.reply) == Delivery::linked;
}

void Service::tidyNowAndThen() {
  const auto now = Clock::now();
  if (now < next_tidying_) return;
  next_tidying_ = now + BETWEEN_TIDYINGS;
  ReplyWriter& replies = queues_.replies();
  const bool was_crowded = replies.isCrowded();
  (void)replies.reclaimDeparted();
  if (!was_crowded) return;
  (void)replies.reclaimIdle();
  doubtful_ = queues_.requests().depth();
}

}  // namespace armengine
