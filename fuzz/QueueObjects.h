#pragma once

#include <cstddef>

#include "HostileQueue.h"
#include "Input.h"

// The objects of both queues as an input wants them: as a living engine lays them out, or changed
// in any way, or of sizes that no engine gives them.

inline constexpr const char* REPLY_NAME = "/var/kelp/controls_ea.kelp";
inline constexpr const char* REQUEST_NAME = "/var/kelp/controls_ae.kelp";

/// Bytes at the front of a segment that hold what is worth changing most.
inline constexpr std::size_t REPLY_FRONT = 160;
inline constexpr std::size_t REQUEST_FRONT = 28;

/// The sets, in the order in which they are made.
enum ReplySet : std::size_t { REPLY_LOCK, REPLY_WAKE };
enum RequestSet : std::size_t { REQUEST_LOCK, REQUEST_OVERFLOW, REQUEST_EMPTY };

/// The requester that a laid-out reply queue holds a reply for.
inline constexpr int REQUESTER[2] = {7, 7};

void buildReplyQueue(HostileQueue& queue, Input& input);
void buildRequestQueue(HostileQueue& queue, Input& input);
