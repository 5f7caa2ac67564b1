#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/EngineQueues.h"
#include "dispatch/Dispatcher.h"

namespace armengine {

/// Serves the requests of one engine's queues.  One thread; interrupting the request queue ends it.
class Service {
 public:
  Service(EngineQueues& queues, Dispatcher& dispatcher);

  /// Serves until the request queue is interrupted (true), or stopped or removed (false).
  bool run();

  uint64_t served() const { return served_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Undelivered {
    TIPCIdentifier to;
    TArmReplyMessage reply;
    std::optional<uint64_t> due;  ///< requests to be served before, once its sender waits
  };

  void serve(std::size_t count);
  void keepOrForget(const Outgoing& answer);
  bool deliver(Undelivered& one);
  void forgetUndelivered(const TIPCIdentifier& to);
  void tidyNowAndThen();
  void deliverAgain();

  EngineQueues& queues_;
  Dispatcher& dispatcher_;
  /// Requests that are taken together, and their answers.
  std::vector<TArmMessage> requests_;
  std::vector<Outgoing> answers_;
  /// Replies that could not be delivered yet, at most one for each requester.
  std::vector<Undelivered> undelivered_;
  /// Requests, the next ones of the queue, that were made while new requesters may have found no
  /// head record.
  unsigned doubtful_ = 0;
  Clock::time_point next_tidying_ = Clock::now();
  uint64_t served_ = 0;
};

}  // namespace armengine
