#pragma once

#include <cstdint>
#include <string>

namespace armengine {

/// Room of an engine's queues when nobody chooses another: slots of the request queue, and head
/// records and items of the reply queue.
inline constexpr uint16_t USUAL_REQUESTS = 1024;
inline constexpr uint16_t USUAL_REQUESTERS = 1024;

/// Largest number of requesters: a semaphore set holds 32000 semaphores on an ordinary kernel.
inline constexpr unsigned LARGEST_REQUESTERS = 31998;

/// Longest prefix: with a longer one the paths would be cut, each at a place of its own.
inline constexpr std::size_t LONGEST_PREFIX = 93;

/// Whether a text can be the value of ARM_AGENT_PREFIX for an engine.
inline bool isPrefix(const std::string& text) {
  return text.size() <= LONGEST_PREFIX && text.find('/') == std::string::npos;
}

}  // namespace armengine
