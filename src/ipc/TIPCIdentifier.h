#pragma once

#include <cstddef>
#include <cstdint>

/// The address of one requester, a thread of a process: 8 bytes, stored by value in request records
/// and in the head records of the reply queue.
///
/// | offset | size | field     | meaning                                                    |
/// |--------|------|-----------|------------------------------------------------------------|
/// | 0      | 4    | processId | process id                                                 |
/// | 4      | 4    | threadId  | identifier of the thread, unique among the process's live ones |
struct _TIPCIdentifier {
  int32_t processId;
  uint32_t threadId;
};

static_assert(sizeof(_TIPCIdentifier) == 8);
static_assert(offsetof(_TIPCIdentifier, processId) == 0);
static_assert(offsetof(_TIPCIdentifier, threadId) == 4);

using TIPCIdentifier = _TIPCIdentifier;

/// Marks a head record that belongs to nobody.
inline constexpr TIPCIdentifier NULL_IPC_ID = {-1, 0xFFFFFFFFU};
