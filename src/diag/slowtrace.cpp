#include "diag/slowtrace.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "diag/CPatience.h"

namespace {

CPatience VReaderPatience(TRACE_READER_MILLISECONDS);
CPatience VTurnPatience(TRACE_TURN_MILLISECONDS);

/// The process whose thread hands out: in a forked child, its parent's threads do not count.
std::atomic<pid_t> VTurn{0};

/// What is to be handed out.  Touched by the thread whose turn it is.
struct TSlowTrace {
  pid_t process;  ///< the process that has kept the rest, and where it belongs
  dev_t device;
  ino_t file;
  std::size_t rest;    ///< the bytes that must go, since what stands before them has gone
  std::size_t length;  ///< with the record that is being gathered
  bool fits;
  char bytes[SLOW_TRACE_SIZE];
};
TSlowTrace VSlowTrace;

bool takeTurn() {
  pid_t holder = VTurn.load(std::memory_order_relaxed);
  const pid_t self = getpid();
  return holder != self && VTurn.compare_exchange_strong(holder, self, std::memory_order_acquire);
}

/// Hands out what is taken at once, the rest and the record each in one write; true when there is
/// no more to do, because all has gone or nothing can go.
bool handOut(int file, std::size_t* gone) {
  while (*gone < VSlowTrace.length) {
    const std::size_t end = *gone < VSlowTrace.rest ? VSlowTrace.rest : VSlowTrace.length;
    const ssize_t count = write(file, VSlowTrace.bytes + *gone, end - *gone);
    if (count > 0) {
      *gone += static_cast<std::size_t>(count);
    } else if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
      return false;
    } else {
      *gone = VSlowTrace.length;
    }
  }
  return true;
}

}  // namespace

bool beginSlowRecord(const struct stat& place) {
  if (!VTurnPatience.Until(takeTurn)) return false;
  const pid_t process = getpid();
  if (VSlowTrace.process != process || VSlowTrace.device != place.st_dev ||
      VSlowTrace.file != place.st_ino) {
    VSlowTrace.rest = 0;
  }
  VSlowTrace.process = process;
  VSlowTrace.device = place.st_dev;
  VSlowTrace.file = place.st_ino;
  VSlowTrace.length = VSlowTrace.rest;
  VSlowTrace.fits = true;
  return true;
}

void gatherText(const char* text) {
  const std::size_t size = std::strlen(text);
  if (size > SLOW_TRACE_SIZE - VSlowTrace.length) {
    VSlowTrace.fits = false;
    return;
  }
  std::memcpy(VSlowTrace.bytes + VSlowTrace.length, text, size);
  VSlowTrace.length += size;
}

bool endSlowRecord(int file, bool isContinuation) {
  const std::size_t begun = isContinuation ? VSlowTrace.length : VSlowTrace.rest;
  if (!VSlowTrace.fits) VSlowTrace.length = VSlowTrace.rest;
  std::size_t gone = 0;
  if (VSlowTrace.length > 0) {
    (void)VReaderPatience.Until([&] { return handOut(file, &gone); });
  }
  if (gone > 0) VReaderPatience.Renew();
  const bool taken = gone >= VSlowTrace.length || gone > begun || isContinuation;
  const std::size_t kept = (taken ? VSlowTrace.length : begun) - gone;
  std::memmove(VSlowTrace.bytes, VSlowTrace.bytes + gone, kept);
  VSlowTrace.rest = kept;
  const bool whole = taken && VSlowTrace.fits;
  VTurn.store(0, std::memory_order_release);
  return whole;
}
