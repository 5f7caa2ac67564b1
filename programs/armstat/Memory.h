#pragma once

#include <cstdint>
#include <vector>

#include "armstat/Objects.h"
#include "ipc/ReplyQueueLayout.h"
#include "ipc/RequestQueueLayout.h"

namespace armstat {

/// How a copy of a segment was made.
enum class Copy {
  none,    ///< not at all: the segment is not there, too small, or may not be read
  steady,  ///< without the lock; two copies in a row were equal
  torn,    ///< without the lock; it changed too fast, so that parts may not fit each other
  locked,  ///< under the lock
};

/// A copy of the request queue's header.
struct RequestQueue {
  Copy copy = Copy::none;
  uint16_t capacity = 0;
  TRequestQueueHeader header = {};
};

/// A copy of the reply queue without the replies themselves.
struct ReplyQueue {
  Copy copy = Copy::none;
  uint16_t capacity = 0;
  TReplyQueueHeader header = {};
  std::vector<TIPCHeadItem> heads;
  std::vector<uint32_t> links;  ///< of each item, the offset of the next one
};

/// The chain of items that begins at an offset.
struct Chain {
  unsigned length = 0;
  bool sound = true;  ///< false: it leaves the items, or goes round for ever
};

/// How a copy is to be made.
enum class Manner { without_lock, with_lock };

/// Attaches the segment for reading only and copies what is of interest.  With the lock: waits for
/// it for a second at most and holds it for the time of the copy; where it cannot be had, the copy
/// is made without it.
RequestQueue copyRequests(const Objects& objects, Manner manner);
ReplyQueue copyReplies(const Objects& objects, Manner manner);

/// Follows a chain of a copy.  Whatever stands there, it comes to an end.
Chain follow(const ReplyQueue& queue, uint32_t first);

}  // namespace armstat
