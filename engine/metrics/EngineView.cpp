#include "metrics/EngineView.h"

namespace armengine {

void QueueView::show(EngineQueues* queues) {
  const std::lock_guard<std::mutex> lock(mutex_);
  queues_ = queues;
  if (queues != nullptr) prefix_ = queues->prefix();
}

std::optional<QueueFigures> QueueView::look() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (queues_ == nullptr) return std::nullopt;
  QueueFigures figures;
  figures.requests = queues_->requests().depth();
  figures.request_capacity = queues_->requests().capacity();
  figures.replies = queues_->replies().usedItems();
  figures.requesters = queues_->replies().headsInUse();
  figures.reply_capacity = queues_->replies().capacity();
  return figures;
}

std::string QueueView::prefix() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return prefix_;
}

}  // namespace armengine
