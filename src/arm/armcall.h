#pragma once

#include <cstddef>
#include <cstdint>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"

// What the exported calls share: results, the beginning of a record, and the exchange with the
// engine.

/// Result of a call whose arguments are refused.
inline constexpr int32_t ARM_RESULT_REJECTED = -1;
/// Result of a call that cannot reach the engine.
inline constexpr int32_t ARM_RESULT_NO_ENGINE = -2;

/// Whether a call traces; some calls deliberately never do.
enum class TTrace { silent, lines };

/// Clears what a record of the type uses and gives it its sender, the calling thread, and its type.
/// The rest stays as it is and is never read: other users can read the queue, and nothing of the
/// host's stack goes into it.
void beginMessage(TArmMessage& message, TArmMessageType type);

/// The current time.
TArmTimeStamp currentTime();

/// Copies a caller's block into a record field when the data size is positive.
void copyBlock(uint8_t* field, std::size_t fieldSize, const void* block, int32_t dataSize);

/// Posts the record and waits for its reply.  0 when the reply has come; else the value of the step
/// that failed, traced as "IPCPostToEngine failed" or as waitFailure when the call traces.
int32_t exchange(const TArmMessage& message, TArmReplyMessage& reply, TTrace trace,
                 const char* waitFailure = "IPCGetFromEngine failed");

/// The same for calls that return the reply's result word and need nothing else of it.
int32_t exchangeForStatus(const TArmMessage& message, TTrace trace,
                          const char* waitFailure = "IPCGetFromEngine failed");

/// True when a call that traces should write its lines now.
bool traces(TTrace trace);
