#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <vector>

namespace armengine {

/// When a process was started, as bootTime and rounded down to the kernel's tick; nothing when it
/// has ended or cannot be seen.
std::optional<uint64_t> startOfProcess(int32_t process);

/// A process that has ended.
struct Departed {
  int32_t process = 0;
  uint64_t before = 0;   ///< what came from it later (bootTime) may be another process's
  bool visible = false;  ///< processes with that number can be seen from here
};

/// Finds out which of the requesters' processes have ended, by number and start time, on a thread
/// of its own.
class ProcessWatch {
 public:
  explicit ProcessWatch(std::chrono::milliseconds between_checks = std::chrono::seconds(1));
  ~ProcessWatch();
  ProcessWatch(const ProcessWatch&) = delete;
  ProcessWatch& operator=(const ProcessWatch&) = delete;

  /// A request of a process has come.  The hot path; takes no lock for a process that is known.
  void observe(int32_t process, uint64_t now) {
    if (process == last_observed_) return;
    last_observed_ = process;
    if (known_.count(process) == 0) watchNew(process, now);
  }
  /// The processes that have ended since the last call.  The hot path.
  std::vector<Departed> takeDeparted();
  /// Looks again at one that was taken, for what came from its number later: its last requests, if
  /// they came while it was looked at, or those of the number's next owner.  The hot path.
  void watchAgain(const Departed& departed);

 private:
  struct Watched {
    uint64_t first_seen = 0;        ///< when its first request came
    bool visible = false;           ///< it could be seen then, or later
    std::optional<uint64_t> start;  ///< none: it has not been looked at while it lived
  };

  void watchNew(int32_t process, uint64_t now);
  void watch(int32_t process, const Watched& watched);
  void run();
  using Processes = std::map<int32_t, Watched>;
  void checkAll(std::vector<Departed>* found);
  Processes::iterator check(Processes::iterator at, std::vector<Departed>* found);
  static std::optional<Departed> departureOf(int32_t process, Watched* watched);

  const std::chrono::milliseconds between_checks_;
  // Of the hot path.
  int32_t last_observed_ = 0;
  std::unordered_set<int32_t> known_;
  // Shared.
  std::mutex mutex_;
  std::condition_variable change_;
  std::vector<std::pair<int32_t, Watched>> new_ones_;
  std::vector<Departed> departed_;
  std::atomic<bool> any_departed_{false};
  bool ending_ = false;
  // Of the watching thread.
  Processes watched_;
  std::thread thread_;
};

}  // namespace armengine
