#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/EngineQueues.h"
#include "registry/Registry.h"

namespace armengine {

struct QueueFigures {
  unsigned requests = 0;
  unsigned request_capacity = 0;
  unsigned replies = 0;
  unsigned reply_capacity = 0;
  unsigned requesters = 0;
};

/// The queues as other threads may look at them, as long as they are there.
class QueueView {
 public:
  /// Null before the queues go.
  void show(EngineQueues* queues);
  std::optional<QueueFigures> look() const;

 private:
  mutable std::mutex mutex_;
  EngineQueues* queues_ = nullptr;
};

/// A number that belongs to an output.
struct OutputFigure {
  std::string output;  ///< "events", "otlp", "otlp_file"
  std::string name;    ///< why something was dropped, or what was counted
  std::function<uint64_t()> value;
};

/// What outputs look at.
struct EngineView {
  const Registry& registry;
  QueueView queues;
  std::vector<OutputFigure> drops;
  std::vector<OutputFigure> sent;
};

}  // namespace armengine
