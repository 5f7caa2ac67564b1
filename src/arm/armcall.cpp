#include "arm/armcall.h"

#include <cstring>

#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/arm_ipc.h"
#include "platform/kelptime2.h"

void beginMessage(TArmMessage& message, TArmMessageType type) {
  std::memset(&message, 0, sizeof message);
  message.sender_id = GetIpcIdentifier();
  message.msg_type = type;
}

TArmTimeStamp currentTime() {
  TArmTimeStamp now = {0, 0};
  KelpBestGetCurrentTime(&now.seconds, &now.nanoseconds);
  return now;
}

void copyBlock(uint8_t* field, std::size_t fieldSize, const void* block, int32_t dataSize) {
  // The whole block, whatever positive size the caller gave.
  if (dataSize > 0) std::memcpy(field, block, fieldSize);
}

int32_t exchange(const TArmMessage& message, TArmReplyMessage& reply, TTrace trace,
                 const char* waitFailure) {
  long failure = IPCPostToEngine(message);
  if (failure != 0) {
    if (traces(trace)) traceError("IPCPostToEngine failed");
    return static_cast<int32_t>(failure);
  }
  failure = IPCGetFromEngine(reply);
  if (failure != 0 && traces(trace)) traceError(waitFailure);
  return static_cast<int32_t>(failure);
}

int32_t exchangeForStatus(const TArmMessage& message, TTrace trace, const char* waitFailure) {
  TArmReplyMessage reply;
  const int32_t failure = exchange(message, reply, trace, waitFailure);
  return failure != 0 ? failure : reply.result;
}

bool traces(TTrace trace) {
  return trace == TTrace::lines && VDebugRun;
}
