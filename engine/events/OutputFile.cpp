#include "events/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace armengine {

int openForAppending(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

bool writeAll(int file, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(file, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    done += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace armengine
