#pragma once

#include <optional>
#include <string>

namespace armtext {

/// Where somebody listens.
struct HostPort {
  std::string host;  ///< a name or a numeric address, without brackets
  int port = 0;      ///< 0 to 65535

  /// "host:port", with brackets around an address that has colons.
  std::string text() const;
};

/// Reads "HOST:PORT", "[HOST]:PORT" or "PORT", which is one of 127.0.0.1; none when the text is
/// anything else.
std::optional<HostPort> parseHostPort(const std::string& text);

/// The host of such a text whose port may be missing; empty when there is none.
std::string hostOf(const std::string& text);

}  // namespace armtext
