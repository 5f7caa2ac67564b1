#include "text/HostPort.h"

#include <charconv>
#include <cstdint>

namespace armtext {

std::string HostPort::text() const {
  const bool brackets = host.find(':') != std::string::npos;
  return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<HostPort> parseHostPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  const bool only_port = colon == std::string::npos;
  HostPort address = {only_port ? "127.0.0.1" : text.substr(0, colon), 0};
  std::string& host = address.host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return std::nullopt;
  }
  const char* begin = text.data() + (only_port ? 0 : colon + 1);
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, address.port);
  const bool good = error == std::errc() && stop == end && address.port >= 0 &&
                    address.port <= UINT16_MAX && !host.empty() &&
                    host.find_first_of("/ \t[]") == std::string::npos;
  return good ? std::optional<HostPort>(address) : std::nullopt;
}

std::string hostOf(const std::string& text) {
  if (!text.empty() && text.front() == '[') return text.substr(1, text.find(']') - 1);
  return text.substr(0, text.find(':'));
}

}  // namespace armtext
