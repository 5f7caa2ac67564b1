#include "program/Log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace armengine {

void writeLog(Urgency urgency, const std::string& sentence) {
  static const bool JOURNAL = std::getenv("JOURNAL_STREAM") != nullptr;
  const std::string mark = JOURNAL ? "<" + std::to_string(static_cast<int>(urgency)) + ">" : "";
  (void)std::fprintf(stderr, "%sarmengine: %s\n", mark.c_str(), sentence.c_str());
}

void notifyManager(const std::string& state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path == nullptr || std::strlen(path) < 2 || std::strlen(path) >= sizeof address.sun_path) {
    return;
  }
  std::memcpy(address.sun_path, path, std::strlen(path));
  // A name in the abstract space is written with a '@'.
  if (path[0] == '@') address.sun_path[0] = '\0';
  const int from = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (from < 0) return;
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  (void)sendto(from, state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), length);
  (void)close(from);
}

}  // namespace armengine
