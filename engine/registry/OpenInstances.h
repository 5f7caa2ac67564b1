#pragma once

#include <cstdint>
#include <vector>

#include "base/RecordTable.h"
#include "registry/Tracer.h"

namespace armengine {

/// An instance that has been started and not stopped.
struct Instance {
  int32_t class_id = 0;
  int32_t process = 0;  ///< that has used it last
  uint64_t start = 0;   ///< nanoseconds since the epoch
  uint64_t seen = 0;    ///< when it was started, as bootTime
  TraceContext context;
};

/// The open instances by handle.  One thread.
class OpenInstances {
 public:
  Instance& add(int32_t handle) { return instances_.add(handle); }
  Instance* find(int32_t handle) { return instances_.find(handle); }
  const Instance* find(int32_t handle) const { return instances_.find(handle); }
  void remove(int32_t handle) { instances_.remove(handle); }
  bool has(int32_t handle) const { return instances_.has(handle); }
  std::size_t size() const { return instances_.size(); }

  /// The handles of a process that were started before a time (as bootTime), ascending.
  std::vector<int32_t> of(int32_t process, uint64_t seen_before) const;
  /// All handles, ascending.
  std::vector<int32_t> all() const;

 private:
  RecordTable<Instance> instances_;
};

}  // namespace armengine
