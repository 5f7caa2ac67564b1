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
  if (deliver(request.sender_id, reply) == Delivery::linked) return;
  // Its sender may be about to wait for it without a limit, so it is kept.
  undelivered_.push_back({request.sender_id, reply});
}

/// A requester whose call has failed for want of a head record must not find the reply in its next
/// call: while that can be, only those are served that have their record.
Delivery Service::deliver(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
  ReplyWriter& replies = queues_.replies();
  const bool certain = doubtful_ == 0 && !replies.isCrowded();
  if (doubtful_ > 0) --doubtful_;
  return certain ? replies.put(to, reply) : replies.putToKnown(to, reply);
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
  for (std::size_t left = undelivered_.size(); left > 0; --left) {
    const Undelivered next = undelivered_.front();
    undelivered_.pop_front();
    const bool over =
        !isAlive(next.to) || queues_.replies().putToKnown(next.to, next.reply) == Delivery::linked;
    if (!over) undelivered_.push_back(next);
  }
}

void Service::tidyNowAndThen() {
  const auto now = Clock::now();
  if (now < next_tidying_) return;
  next_tidying_ = now + BETWEEN_TIDYINGS;
  const bool was_crowded = queues_.replies().isCrowded();
  (void)queues_.replies().reclaimDeparted();
  if (was_crowded) doubtful_ = queues_.requests().depth();
}

}  // namespace armengine
