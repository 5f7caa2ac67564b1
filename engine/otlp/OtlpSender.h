#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/Counter.h"
#include "otlp/OtlpSettings.h"
#include "otlp/Span.h"

namespace armengine {

/// Sends spans to an OpenTelemetry receiver by HTTP, on a thread of its own.  When the receiver is
/// away, the sender tries again, and a bounded number of spans waits.
class OtlpSender : public SpanExporter {
 public:
  explicit OtlpSender(const OtlpSettings& settings);
  /// Sends what waits, for five seconds at most.
  ~OtlpSender() override;

  void consume(const Span& span) override;

  uint64_t sent() const { return sent_.get(); }
  uint64_t requests() const { return requests_.get(); }
  uint64_t retries() const { return retries_.get(); }
  // Spans that were dropped:
  uint64_t withoutRoom() const { return without_room_.get(); }  ///< too many were waiting
  uint64_t refused() const { return refused_.get(); }           ///< the receiver did not want them
  uint64_t unsent() const { return unsent_.get(); }             ///< the receiver was away too long

 private:
  using Clock = std::chrono::steady_clock;
  enum class Verdict { done, refused, again };
  struct Reply;

  void run();
  std::vector<Span> nextBatch();
  void deliver(const std::vector<Span>& batch);
  Verdict post(const std::string& body, std::size_t spans, std::chrono::milliseconds* wait);
  Verdict judge(const Reply& reply, std::size_t spans, std::chrono::milliseconds* wait);
  bool pause(std::chrono::milliseconds time, Clock::time_point give_up);
  bool isOver();

  const OtlpSettings settings_;
  std::mutex mutex_;
  std::condition_variable change_;
  std::deque<Span> waiting_;
  std::size_t waiting_bytes_ = 0;
  bool ending_ = false;
  Clock::time_point end_ = Clock::time_point::max();
  Counter sent_;
  Counter requests_;
  Counter retries_;
  Counter without_room_;
  Counter refused_;
  Counter unsent_;
  std::thread thread_;
};

}  // namespace armengine
