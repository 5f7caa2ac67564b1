#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "arm.h"
#include "armrun/Options.h"

namespace armrun {

/// One transaction, measured by a thread of its own: a call of the library waits for the engine
/// without a limit, and no engine, however stuck, is to hold up the command.
class Measurement {
 public:
  /// Starts the transaction.  All signals must be blocked, so that the thread never gets one.
  ///   parent  the parent's correlator in hexadecimal digits; null, or anything else, is no parent
  static Measurement& begin(const Options& options, const char* parent);

  /// Steps of a measurement, counted whether they succeed or not.
  static constexpr uint64_t STARTED = 1;
  static constexpr uint64_t STOPPED = 2;

  /// An eventfd that counts the steps.
  int event() const { return event_; }

  /// The correlator for the command's environment; empty when there is none to pass on, yet or at
  /// all.
  std::string correlator();
  /// One sentence on why the command is not measured; empty when it is.
  std::string problem();

  /// Stops the transaction; returns at once.
  void end(arm_int32_t completion_status);

 private:
  Measurement();
  void work(const Options& options, const std::string& parent);
  void start(const Options& options, const std::string& parent);
  void stop(arm_int32_t completion_status);
  arm_int32_t waitForEnd();
  void tell() const;

  int event_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::string correlator_;
  std::string problem_ = "the engine does not answer";
  bool has_ended_ = false;
  arm_int32_t completion_status_ = ARM_GOOD;
  // Only the thread's own:
  arm_int32_t application_ = 0;
  arm_int32_t handle_ = 0;
};

}  // namespace armrun
