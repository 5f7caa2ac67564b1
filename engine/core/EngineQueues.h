#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/ReplyWriter.h"
#include "core/RequestReader.h"
#include "system/Limits.h"
#include "system/NameFiles.h"

namespace armengine {

/// How an engine's queues are made.
struct EngineOptions {
  /// Value of ARM_AGENT_PREFIX for this engine; without one the environment's holds.
  std::optional<std::string> prefix;
  uint16_t requests = USUAL_REQUESTS;      ///< slots of the request queue, at least 1
  uint16_t requesters = USUAL_REQUESTERS;  ///< head records and items of the reply queue
  bool ready = true;                       ///< whether openers find the request queue ready for I/O
};

/// Both queues of one engine, from creation to removal.
class EngineQueues {
 public:
  /// Makes the name files and the queues, replacing what a dead engine has left.  Null, with one
  /// sentence in why, when a living engine serves the prefix or something cannot be made.
  static std::unique_ptr<EngineQueues> create(const EngineOptions& options, std::string* why);

  /// Stops both queues (state 2), wakes every waiter, and removes all objects and name files.
  ~EngineQueues();
  EngineQueues(const EngineQueues&) = delete;
  EngineQueues& operator=(const EngineQueues&) = delete;

  RequestReader& requests() { return *requests_; }
  ReplyWriter& replies() { return *replies_; }
  /// The path of the request queue's segment, by which this engine is known.
  const std::string& controlFile() const { return files_.requests; }
  /// The value of ARM_AGENT_PREFIX that programs need; empty: none.
  const std::string& prefix() const { return prefix_; }

 private:
  EngineQueues() = default;
  bool make(const EngineOptions& options, std::string* why);

  std::string prefix_;
  NameFiles files_;
  PrefixLock lock_;
  std::unique_ptr<RequestReader> requests_;
  std::unique_ptr<ReplyWriter> replies_;
};

}  // namespace armengine
