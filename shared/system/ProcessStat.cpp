#include "system/ProcessStat.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace armengine {

namespace {

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

}  // namespace

bool processExists(int32_t process) {
  return process > 0 && (kill(process, 0) == 0 || errno == EPERM);
}

std::optional<ProcessStat> processStat(int32_t process) {
  // Fields from the third on: 3 state, 20 threads, 22 start in ticks.
  constexpr const char* FIELDS =
      " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d %llu";
  ProcessStat stat;
  long threads = 0;
  unsigned long long ticks = 0;
  const std::string text = readStat(process);
  if (std::sscanf(text.c_str(), FIELDS, &stat.state, &threads, &ticks) != 3) return std::nullopt;
  // A zombie with other threads is a living process whose first thread has ended.
  stat.ended = (stat.state == 'Z' && threads <= 1) || stat.state == 'X';
  stat.start_ticks = ticks;
  return stat;
}

}  // namespace armengine
