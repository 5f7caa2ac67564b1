#include "dispatch/ProcessWatch.h"

#include <unistd.h>

#include <string>

#include "base/Time.h"
#include "system/ProcessStat.h"

namespace armengine {

namespace {

/// A process that could never be seen may be one of another container.
constexpr uint64_t PATIENCE_WITH_UNSEEN = 60 * SECOND;

/// Whether /proc shows the process numbers that requests carry.
bool procIsOurs() {
  char number[16] = {};
  const ssize_t length = readlink("/proc/self", number, sizeof number - 1);
  return length > 0 && number == std::to_string(getpid());
}

}  // namespace

std::optional<uint64_t> startOfProcess(int32_t process) {
  static const bool OURS = procIsOurs();
  if (!OURS) return processExists(process) ? std::optional<uint64_t>(0) : std::nullopt;
  const auto stat = processStat(process);
  if (!stat || stat->ended) return std::nullopt;
  static const auto TICKS_PER_SECOND = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  return stat->start_ticks * (SECOND / TICKS_PER_SECOND);
}

ProcessWatch::ProcessWatch(std::chrono::milliseconds between_checks)
    : between_checks_(between_checks), thread_([this] { run(); }) {}

ProcessWatch::~ProcessWatch() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  change_.notify_one();
  thread_.join();
}

void ProcessWatch::watchNew(int32_t process, uint64_t now) {
  // It lives, waiting for its answer: one that cannot be seen now is in another container.
  watch(process, {now, processExists(process), std::nullopt});
}

void ProcessWatch::watchAgain(const Departed& departed) {
  watch(departed.process, {departed.before, departed.visible, std::nullopt});
}

void ProcessWatch::watch(int32_t process, const Watched& watched) {
  known_.insert(process);
  const std::lock_guard<std::mutex> lock(mutex_);
  new_ones_.emplace_back(process, watched);
  change_.notify_one();
}

std::vector<Departed> ProcessWatch::takeDeparted() {
  std::vector<Departed> departed;
  if (!any_departed_.exchange(false)) return departed;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    departed.swap(departed_);
  }
  for (const Departed& one : departed) known_.erase(one.process);
  last_observed_ = 0;
  return departed;
}

void ProcessWatch::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  auto next_round = std::chrono::steady_clock::now();
  while (!ending_) {
    (void)change_.wait_until(lock, next_round, [this] { return ending_ || !new_ones_.empty(); });
    std::vector<std::pair<int32_t, Watched>> new_ones;
    new_ones.swap(new_ones_);
    lock.unlock();
    std::vector<Departed> found;
    for (const auto& [process, watched] : new_ones) {
      (void)check(watched_.insert_or_assign(process, watched).first, &found);
    }
    if (std::chrono::steady_clock::now() >= next_round) {
      checkAll(&found);
      next_round = std::chrono::steady_clock::now() + between_checks_;
    }
    lock.lock();
    departed_.insert(departed_.end(), found.begin(), found.end());
    if (!found.empty()) any_departed_ = true;
  }
}

void ProcessWatch::checkAll(std::vector<Departed>* found) {
  for (auto at = watched_.begin(); at != watched_.end();) at = check(at, found);
}

/// Looks at one; returns the next one.
ProcessWatch::Processes::iterator ProcessWatch::check(Processes::iterator at,
                                                      std::vector<Departed>* found) {
  const auto departed = departureOf(at->first, &at->second);
  if (!departed) return std::next(at);
  found->push_back(*departed);
  return watched_.erase(at);
}

std::optional<Departed> ProcessWatch::departureOf(int32_t process, Watched* watched) {
  // Before the check: what comes during it may be the last requests of a process, or another's
  // first.
  const uint64_t now = bootTime();
  const auto start = startOfProcess(process);
  if (!start) {
    if (!watched->visible && now - watched->first_seen < PATIENCE_WITH_UNSEEN) return std::nullopt;
    return Departed{process, now, watched->visible};
  }
  const bool reused = watched->start ? *start != *watched->start : *start > watched->first_seen;
  if (reused) return Departed{process, *start, true};
  watched->start = start;
  watched->visible = true;
  return std::nullopt;
}

}  // namespace armengine
