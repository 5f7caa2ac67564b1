#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace armengine {

/// How traces are sent.
struct OtlpSettings {
  std::string url;  ///< complete, with the path; empty: nothing is sent
  std::vector<std::pair<std::string, std::string>> headers;
  std::vector<std::pair<std::string, std::string>> resource;  ///< attributes of every resource
  std::string certificate;                                    ///< file of trusted certificates
  bool gzip = true;
  std::chrono::milliseconds timeout{10000};  ///< of one request
  std::chrono::milliseconds delay{1000};     ///< longest wait of a span for others
  std::size_t batch = 512;                   ///< most spans of one request
  std::size_t most_waiting = 16384;          ///< spans that wait for the receiver; more are dropped
};

/// Reads the environment's OTEL_ variables; a URL of the command line goes before them.
///   warnings  sentences about variables that cannot be followed
OtlpSettings otlpSettings(const std::string& url, std::vector<std::string>* warnings);

}  // namespace armengine
