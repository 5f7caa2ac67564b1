#include "program/Service.h"

#include <algorithm>

#include "ipc/CIPCUtils.h"
#include "system/ProcessStat.h"

namespace armengine {

namespace {

constexpr std::chrono::seconds BETWEEN_TIDYINGS{1};
constexpr std::chrono::milliseconds BETWEEN_DELIVERIES{1};
/// Requests that are taken, and answered, under one lock: more save little, and the first of them
/// waits for the last.
constexpr std::size_t BATCH = 16;

}  // namespace

Service::Service(EngineQueues& queues, Dispatcher& dispatcher)
    : queues_(queues), dispatcher_(dispatcher), requests_(BATCH) {
  answers_.reserve(BATCH);
}

bool Service::run() {
  for (;;) {
    // A writer that is killed after it has counted its request, and before it has raised the
    // semaphore, wakes nobody; nor does a later one, who finds the queue not empty.
    const auto limit =
        undelivered_.empty() ? std::chrono::milliseconds(BETWEEN_TIDYINGS) : BETWEEN_DELIVERIES;
    std::size_t count = 0;
    const Taken taken = queues_.requests().take(requests_.data(), requests_.size(), &count, limit);
    if (taken == Taken::stopped) return false;
    if (taken == Taken::interrupted) return true;
    if (count > 0) serve(count);
    deliverAgain();
    tidyNowAndThen();
  }
}

/// Answers the first requests of the batch.
void Service::serve(std::size_t count) {
  answers_.clear();
  for (std::size_t i = 0; i < count; ++i) {
    answers_.push_back(
        {requests_[i].sender_id, dispatcher_.apply(requests_[i]), Delivery::no_head});
  }
  served_ += count;
  const std::size_t doubtful = std::min<std::size_t>(doubtful_, count);
  doubtful_ -= static_cast<unsigned>(doubtful);
  queues_.replies().putAllUnlessCrowded(answers_.data() + doubtful, count - doubtful);
  for (const Outgoing& answer : answers_) keepOrForget(answer);
  dispatcher_.publish();
}

/// A requester that makes another request waits for no earlier reply.  One that could not be given
/// its reply may be about to wait for it without a limit, so that is kept.
void Service::keepOrForget(const Outgoing& answer) {
  forgetUndelivered(answer.to);
  if (answer.delivery == Delivery::linked) return;
  undelivered_.push_back({answer.to, answer.reply, std::nullopt});
}

void Service::forgetUndelivered(const TIPCIdentifier& to) {
  const auto forget = [&to](const Undelivered& one) {
    return CIPCUtils::sameIPCIdentifiers(one.to, to);
  };
  undelivered_.erase(std::remove_if(undelivered_.begin(), undelivered_.end(), forget),
                     undelivered_.end());
}

void Service::deliverAgain() {
  const auto over = [this](Undelivered& one) {
    return deliver(one) || !processExists(one.to.processId);
  };
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
  const bool freed = replies.reclaimDeparted() > 0;
  dispatcher_.tidy();
  if (was_crowded) (void)replies.reclaimIdle();
  // Records may have run short after the check, so those that came free tell as much.
  if (was_crowded || freed) doubtful_ = queues_.requests().depth();
}

}  // namespace armengine
