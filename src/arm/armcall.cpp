#include "arm/armcall.h"

#include <cstddef>
#include <cstring>

#include "arm/libarmutils.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "ipc/arm_ipc.h"
#include "platform/kelptime2.h"

namespace {

constexpr std::size_t BODY_OFFSET = offsetof(TArmMessage, messages);

/// Bytes of a record that its type's fixed fields use, from the start of the record.
std::size_t fixedSize(int32_t type) {
  switch (type) {
    case ARM_MSG_INIT:
      return BODY_OFFSET + sizeof(TArmInitBody);
    case ARM_MSG_START:
      return BODY_OFFSET + sizeof(TArmStartBody);
    case ARM_MSG_UPDATE:
      return BODY_OFFSET + sizeof(TArmUpdateBody);
    case ARM_MSG_STOP:
      return BODY_OFFSET + sizeof(TArmStopBody);
    case ARM_MSG_END:
      return BODY_OFFSET + sizeof(TArmEndBody);
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      return BODY_OFFSET + sizeof(TArmCompleteBody);
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT:
      return BODY_OFFSET + sizeof(TArmReportBody);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
      return BODY_OFFSET + offsetof(TArmMetricDataBody, metric_data);
    default:
      return sizeof(TArmMessage);
  }
}

/// Whether the engine that a request was posted to can be reached again.
[[gnu::noinline, gnu::cold]] bool reconnectedTo(int engine) {
  return CheckEngineStatus() == 0 && IPCIsOpenTo(engine);
}

/// Waits for the reply to a request that an engine has got, and from no other engine, which would
/// never send one.  Another thread, which has seen an earlier engine dead, may close the connection
/// before the wait: without a further attempt the reply would become that of this thread's next
/// call.  An engine that is dead itself is not looked at again: that is for the next call's status
/// check.
long waitForReply(TArmReplyMessage& reply, int engine) {
  const TIPCIdentifier id = GetIpcIdentifier();
  for (int furtherAttempts = 7;; --furtherAttempts) {
    bool closed = false;
    const long failure = IPCGetFromEngine(reply, id, engine, &closed);
    if (!closed || furtherAttempts == 0 || !reconnectedTo(engine)) return failure;
  }
}

/// Bytes of a complete record that are set.
std::size_t usedSize(const TArmMessage& message) {
  const std::size_t fixed = fixedSize(message.msg_type);
  if (message.msg_type != ARM_MSG_ASSOCIATE_METRIC_DATA) return fixed;
  return fixed + static_cast<std::size_t>(message.messages.metric_data.length);
}

}  // namespace

void beginMessage(TArmMessage& message, TArmMessageType type) {
  std::memset(static_cast<void*>(&message), 0, fixedSize(type));
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
  int engine = ANY_ENGINE;
  long failure = IPCPostToEngine(message, usedSize(message), &engine);
  if (failure != 0) {
    if (traces(trace)) traceError("IPCPostToEngine failed");
    return static_cast<int32_t>(failure);
  }
  failure = waitForReply(reply, engine);
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
