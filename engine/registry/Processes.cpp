#include "registry/Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "registry/Time.h"

namespace armengine {

namespace {

/// A process that could never be seen may be one of another container.
constexpr uint64_t PATIENCE_WITH_UNSEEN = 60 * SECOND;

/// What of /proc/PID/stat follows the process's name, which may hold anything.
std::string readStat(int32_t process) {
  char path[32];
  (void)std::snprintf(path, sizeof path, "/proc/%d/stat", process);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  char text[1024];
  const ssize_t length = read(file, text, sizeof text);
  (void)close(file);
  const std::string all(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::size_t name_end = all.rfind(')');
  return name_end == std::string::npos ? std::string() : all.substr(name_end + 1);
}

bool isVisible(int32_t process) {
  return process > 0 && (kill(process, 0) == 0 || errno == EPERM);
}

/// Whether /proc shows the process numbers that requests carry.
bool procIsOurs() {
  char number[16] = {};
  const ssize_t length = readlink("/proc/self", number, sizeof number - 1);
  return length > 0 && number == std::to_string(getpid());
}

}  // namespace

std::optional<uint64_t> startOfProcess(int32_t process) {
  static const bool ours = procIsOurs();
  if (process <= 0) return std::nullopt;
  if (!ours) {
    return isVisible(process) ? std::optional<uint64_t>(0) : std::nullopt;
  }
  // Fields from the third on: 3 state, 20 threads, 22 start in ticks.
  const std::string stat = readStat(process);
  char state = 0;
  long threads = 0;
  unsigned long long ticks = 0;
  constexpr const char* FIELDS =
      " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d %llu";
  if (std::sscanf(stat.c_str(), FIELDS, &state, &threads, &ticks) != 3) return std::nullopt;
  // A zombie with other threads is a living process whose first thread has ended.
  if ((state == 'Z' && threads <= 1) || state == 'X') return std::nullopt;
  static const auto ticks_per_second = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  return ticks * (SECOND / ticks_per_second);
}

ProcessWatch::ProcessWatch(std::chrono::milliseconds between_looks)
    : between_looks_(between_looks), thread_([this] { run(); }) {}

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
  watch(process, {now, isVisible(process), std::nullopt});
}

void ProcessWatch::lookAgain(const Departed& departed) {
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
  last_noted_ = 0;
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
      (void)look(watched_.insert_or_assign(process, watched).first, &found);
    }
    if (std::chrono::steady_clock::now() >= next_round) {
      lookAtAll(&found);
      next_round = std::chrono::steady_clock::now() + between_looks_;
    }
    lock.lock();
    departed_.insert(departed_.end(), found.begin(), found.end());
    if (!found.empty()) any_departed_ = true;
  }
}

void ProcessWatch::lookAtAll(std::vector<Departed>* found) {
  for (auto at = watched_.begin(); at != watched_.end();) at = look(at, found);
}

/// Looks at one; returns the next one.
ProcessWatch::Processes::iterator ProcessWatch::look(Processes::iterator at,
                                                     std::vector<Departed>* found) {
  const auto departed = lookAt(at->first, &at->second);
  if (!departed) return std::next(at);
  found->push_back(*departed);
  return watched_.erase(at);
}

std::optional<Departed> ProcessWatch::lookAt(int32_t process, Watched* watched) {
  // Before the look: what comes during it may be the last requests of a process, or another's first.
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
