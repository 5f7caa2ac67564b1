#include "dispatch/RequestEvents.h"

#include <cstring>
#include <utility>

#include "base/Time.h"
#include "dispatch/RequestBlocks.h"

namespace armengine {

namespace {

/// Format-1 and format-2 blocks of an update differ in size.
std::size_t sizeOfBlock(const TArmUpdateBody& body) {
  int32_t format = 0;
  std::memcpy(&format, body.data, sizeof format);
  return format == ARM_DATA_FORMAT_1 ? ARM_FORMAT1_SIZE : ARM_FORMAT2_SIZE;
}

template <typename Body>
std::size_t sizeOfBlock(const Body& body) {
  return sizeof body.data;
}

template <typename Body>
void setBlock(const Body& body, PendingEvent* made) {
  made->event.data_size = body.data_size;
  made->payload = blockOf(body.data, body.data_size);
  if (made->payload == nullptr) return;
  made->event.payload_size = static_cast<uint32_t>(sizeOfBlock(body));
}

void describe(const TArmInitBody& body, PendingEvent* made) {
  made->event.values[0] = body.flags;
}

void describe(const TArmGetidBody& body, PendingEvent* made) {
  made->event.id = body.appl_id;
  setBlock(body, made);
}

void describe(const TArmStartBody& body, PendingEvent* made) {
  made->event.id = body.tran_id;
  made->event.time = nanoseconds(body.time);
  setBlock(body, made);
}

void describe(const TArmUpdateBody& body, PendingEvent* made) {
  made->event.id = body.start_handle;
  made->event.time = nanoseconds(body.time);
  made->event.values[0] = body.flags;
  setBlock(body, made);
}

void describe(const TArmStopBody& body, PendingEvent* made) {
  made->event.id = body.start_handle;
  made->event.time = nanoseconds(body.time);
  made->event.values = {body.comp_status, body.flags, 0};
  setBlock(body, made);
}

void describe(const TArmReportBody& body, PendingEvent* made) {
  made->event.id = body.tran_handle;
  made->event.time = nanoseconds(body.time);
  made->event.values = {body.report_value1, body.report_value2, body.report_value3};
  setBlock(body, made);
}

void describe(const TArmCompleteBody& body, PendingEvent* made) {
  made->event.id = body.tran_handle;
  made->event.time = nanoseconds(body.time);
  made->event.values = {body.complete_value1, body.complete_value2, 0};
}

void describe(const TArmMetricDataBody& body, PendingEvent* made) {
  made->event.id = body.tran_handle;
  made->event.data_size = body.length;
  if (made->event.result != STATUS_OK) return;
  made->payload = body.metric_data;
  made->event.payload_size = static_cast<uint32_t>(body.length);
}

void describe(const TArmMessage& request, PendingEvent* made) {
  const TArmMessageBody& body = request.messages;
  switch (request.msg_type) {
    case ARM_MSG_INIT:
      return describe(body.init, made);
    case ARM_MSG_GETID:
      return describe(body.getid, made);
    case ARM_MSG_START:
      return describe(body.start, made);
    case ARM_MSG_UPDATE:
      return describe(body.update, made);
    case ARM_MSG_STOP:
      return describe(body.stop, made);
    case ARM_MSG_END:
      made->event.id = body.end.appl_id;
      return;
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT:
      return describe(body.report, made);
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      return describe(body.complete, made);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
      return describe(body.metric_data, made);
    default:
      return;
  }
}

}  // namespace

void makeEvent(const TArmMessage& request, Answer&& answer, PendingEvent* made) {
  *made = PendingEvent();
  Event& event = made->event;
  event.type = request.msg_type;
  event.process = request.sender_id.processId;
  event.thread = request.sender_id.threadId;
  event.result = answer.result;
  event.subject = std::move(answer.subject);
  describe(request, made);
  if (event.time == 0) event.time = wallTime();
}

}  // namespace armengine
