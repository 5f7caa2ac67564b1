#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/EngineQueues.h"
#include "recent/RecentTransactions.h"
#include "registry/Registry.h"

namespace armengine {

struct QueueGauges {
  unsigned requests = 0;
  unsigned request_capacity = 0;
  unsigned replies = 0;
  unsigned reply_capacity = 0;
  unsigned requesters = 0;
};

/// The queues as other threads may read them, as long as they are there.
class QueueView {
 public:
  /// Null before the queues go.
  void show(EngineQueues* queues);
  std::optional<QueueGauges> read() const;
  /// The prefix of the programs that the queues serve; empty without one.
  std::string prefix() const;

 private:
  mutable std::mutex mutex_;
  EngineQueues* queues_ = nullptr;
  std::string prefix_;
};

/// A number that belongs to an output.
struct OutputCounter {
  std::string output;  ///< "events", "otlp", "otlp_file"
  std::string name;    ///< why something was dropped, or what was counted
  std::function<uint64_t()> value;
};

/// What outputs show.
struct EngineView {
  explicit EngineView(const Registry& shown) : registry(shown) {}

  const Registry& registry;
  QueueView queues;
  std::vector<OutputCounter> drops;
  std::vector<OutputCounter> sent;
  const RecentTransactions* recent = nullptr;  ///< for the page; null without one
  std::string recent_output;                   ///< the output that brings it its events
  uint64_t started = 0;                        ///< nanoseconds since the epoch
};

}  // namespace armengine
