#include "view/EngineView.h"

namespace armengine {

void QueueView::show(EngineQueues* queues) {
  const std::lock_guard<std::mutex> lock(mutex_);
  queues_ = queues;
  if (queues != nullptr) prefix_ = queues->prefix();
}

std::optional<QueueGauges> QueueView::read() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (queues_ == nullptr) return std::nullopt;
  QueueGauges gauges;
  gauges.requests = queues_->requests().depth();
  gauges.request_capacity = queues_->requests().capacity();
  gauges.replies = queues_->replies().usedItems();
  gauges.requesters = queues_->replies().headsInUse();
  gauges.reply_capacity = queues_->replies().capacity();
  return gauges;
}

std::string QueueView::prefix() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return prefix_;
}

}  // namespace armengine
