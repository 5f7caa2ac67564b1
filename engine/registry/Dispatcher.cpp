#include "registry/Dispatcher.h"

#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "armext.h"
#include "registry/Time.h"

namespace armengine {

namespace {

/// A text field.  Every process may write requests: the terminating zero is not relied upon.
template <std::size_t N>
std::string_view text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

uint64_t nanoseconds(const TArmTimeStamp& time) {
  return uint64_t{time.seconds} * SECOND + time.nanoseconds;
}

/// The metric descriptions and their size, compared as they are; empty without any.
class Descriptions {
 public:
  explicit Descriptions(const TArmGetidBody& body) {
    if (body.data_size <= 0) return;
    std::memcpy(bytes_, body.data, sizeof body.data);
    std::memcpy(bytes_ + sizeof body.data, &body.data_size, sizeof body.data_size);
    size_ = sizeof bytes_;
  }
  std::string_view view() const { return {bytes_, size_}; }

 private:
  char bytes_[ARM_FORMAT101_SIZE + sizeof(int32_t)];
  std::size_t size_ = 0;
};

/// The block of a start or a report.
class Format1Block {
 public:
  Format1Block(const uint8_t (&data)[ARM_FORMAT1_SIZE], int32_t data_size)
      : block_(data_size > 0 ? data : nullptr) {}

  bool wantsCorrelator() const { return has(ARM_CorrReq_f); }
  StartData startData() const {
    StartData data;
    data.trace = has(ARM_TraceReq_f);
    data.metrics = block_;
    if (has(ARM_CorrPar_f)) {
      constexpr std::size_t AT = offsetof(arm_user_data1_t, correlator);
      std::memcpy(data.parent.emplace().data(), block_ + AT, ARM_CORRELATOR_FIELD);
    }
    return data;
  }

 private:
  bool has(unsigned flag) const {
    if (block_ == nullptr) return false;
    int32_t format = 0;
    std::memcpy(&format, block_, sizeof format);
    return format == ARM_DATA_FORMAT_1 && (block_[offsetof(arm_user_data1_t, flags)] & flag) != 0;
  }

  const uint8_t* block_;
};

void addCorrelator(const Started& started, const Format1Block& block, TArmReplyMessage* reply) {
  if (started.result < 0 || !block.wantsCorrelator()) return;
  reply->correlator_flag = 1;
  std::memcpy(reply->correlator, started.correlator.data(), started.correlator.size());
}

/// Format-1 and format-2 blocks of an update differ in size.
std::size_t sizeOfUpdate(const TArmUpdateBody& body) {
  int32_t format = 0;
  std::memcpy(&format, body.data, sizeof format);
  return format == ARM_DATA_FORMAT_1 ? ARM_FORMAT1_SIZE : ARM_FORMAT2_SIZE;
}

}  // namespace

TArmReplyMessage Dispatcher::apply(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  TArmReplyMessage reply = {};
  event_ = &waiting_[waiting_count_].event;
  *event_ = Event();
  event_->type = request.msg_type;
  payload_ = nullptr;
  note(request);
  switch (request.msg_type) {
    case ARM_MSG_START: {
      const Started started = start(request);
      reply.result = started.result;
      addCorrelator(started, {body.start.data, body.start.data_size}, &reply);
      break;
    }
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT: {
      const Started reported = report(request);
      reply.result = reported.result;
      if (registry_.isClass(body.report.tran_handle)) {
        addCorrelator(reported, {body.report.data, body.report.data_size}, &reply);
      }
      break;
    }
    default:
      reply.result = statusFor(request);
  }
  finishEvent(request, reply.result);
  return reply;
}

void Dispatcher::finishEvent(const TArmMessage& request, int32_t result) {
  if (events_ == nullptr || !events_->isUsed()) return;
  event_->process = request.sender_id.processId;
  event_->thread = request.sender_id.threadId;
  event_->result = result;
  if (event_->time == 0) event_->time = wallTime();
  event_->applied = registry_.applied();
  waiting_[waiting_count_++].payload = payload_;
  if (waiting_count_ == waiting_.size()) publish();
}

void Dispatcher::publish() {
  for (std::size_t i = 0; i < waiting_count_; ++i) {
    events_->publish(&waiting_[i].event, waiting_[i].payload);
  }
  waiting_count_ = 0;
}

void Dispatcher::note(const TArmMessage& request) {
  const int32_t type = request.msg_type;
  const auto index = static_cast<std::size_t>(type);
  const bool known = (type >= ARM_MSG_INIT && type <= ARM_MSG_END) ||
                     (type >= ARM_MSG_COMPLETE_TRANS && type <= ARM_MSG_ASSOCIATE_METRIC_DATA);
  registry_.figures().requests[known ? index : 0].add();
  if (watch_ == nullptr) return;
  now_ = bootTime();
  watch_->note(request.sender_id.processId, now_);
}

void Dispatcher::setPayload(const uint8_t* bytes, std::size_t size) {
  payload_ = bytes;
  event_->payload_size = static_cast<uint32_t>(size);
}

/// The answer to the requests that no correlator can come with.
int32_t Dispatcher::statusFor(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  switch (request.msg_type) {
    case ARM_MSG_INIT:
      return init(request);
    case ARM_MSG_GETID:
      return getid(request);
    case ARM_MSG_UPDATE:
      return update(request);
    case ARM_MSG_STOP:
      return stop(request);
    case ARM_MSG_END:
      event_->id = body.end.appl_id;
      return registry_.endApplication(body.end.appl_id);
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      return complete(body.complete);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
      return addMetricData(body.metric_data);
    default:
      return unknownMessage();
  }
}

int32_t Dispatcher::unknownMessage() {
  registry_.figures().unknown_messages.add();
  registry_.look(0);
  return STATUS_UNKNOWN_MESSAGE;
}

int32_t Dispatcher::init(const TArmMessage& request) {
  const TArmInitBody& body = request.messages.init;
  event_->values[0] = body.flags;
  return registry_.addApplication(text(body.appl_name), text(body.appl_user_id),
                                  request.sender_id.processId);
}

int32_t Dispatcher::getid(const TArmMessage& request) {
  const TArmGetidBody& body = request.messages.getid;
  event_->id = body.appl_id;
  event_->data_size = body.data_size;
  if (body.data_size > 0) setPayload(body.data, sizeof body.data);
  return registry_.addClass(body.appl_id, text(body.tran_name), Descriptions(body).view(),
                            text(body.tran_detail), request.sender_id.processId);
}

Started Dispatcher::start(const TArmMessage& request) {
  const TArmStartBody& body = request.messages.start;
  event_->id = body.tran_id;
  event_->time = nanoseconds(body.time);
  event_->data_size = body.data_size;
  if (body.data_size > 0) setPayload(body.data, sizeof body.data);
  StartData data = Format1Block(body.data, body.data_size).startData();
  data.process = request.sender_id.processId;
  data.seen = now_;
  event_->trace_asked = data.trace;
  return registry_.start(body.tran_id, data, nanoseconds(body.time));
}

int32_t Dispatcher::update(const TArmMessage& request) {
  const TArmUpdateBody& body = request.messages.update;
  event_->id = body.start_handle;
  event_->time = nanoseconds(body.time);
  event_->values[0] = body.flags;
  event_->data_size = body.data_size;
  if (body.data_size > 0) setPayload(body.data, sizeOfUpdate(body));
  return registry_.update(body.start_handle, payload_, request.sender_id.processId);
}

int32_t Dispatcher::stop(const TArmMessage& request) {
  const TArmStopBody& body = request.messages.stop;
  event_->id = body.start_handle;
  event_->time = nanoseconds(body.time);
  event_->values = {body.comp_status, body.flags, 0};
  event_->data_size = body.data_size;
  if (body.data_size > 0) setPayload(body.data, sizeof body.data);
  return registry_.stop(body.start_handle, body.comp_status, nanoseconds(body.time), payload_);
}

// The numbers and value words of reports, completions and metric data mean to this engine: a number
// names an open instance (its start handle) or a transaction class; any other is refused.  A report
// on a class counts one finished instance: value 1 is its completion status as in a stop, value 2
// its response time in milliseconds, value 3 is the application's own.  A report on an instance is
// progress, as an update.  A completion of an instance stops it at the time of the call with value
// 1 as its completion status; value 2 is the application's own.  A completion of a class is
// acknowledged and changes nothing.  Metric data of an instance are opaque progress, as an update
// with a format-2 block; those of a class are acknowledged and change nothing.

Started Dispatcher::report(const TArmMessage& request) {
  const TArmReportBody& body = request.messages.report;
  event_->id = body.tran_handle;
  event_->time = nanoseconds(body.time);
  event_->values = {body.report_value1, body.report_value2, body.report_value3};
  event_->data_size = body.data_size;
  if (body.data_size > 0) setPayload(body.data, sizeof body.data);
  if (registry_.isOpen(body.tran_handle)) {
    return {registry_.update(body.tran_handle, payload_, request.sender_id.processId)};
  }
  constexpr uint64_t MILLISECOND = 1'000'000;
  StartData data = Format1Block(body.data, body.data_size).startData();
  data.process = request.sender_id.processId;
  event_->trace_asked = data.trace;
  const uint64_t duration =
      body.report_value2 > 0 ? static_cast<uint64_t>(body.report_value2) * MILLISECOND : 0;
  return registry_.report(body.tran_handle, data, body.report_value1, duration);
}

int32_t Dispatcher::complete(const TArmCompleteBody& body) {
  event_->id = body.tran_handle;
  event_->time = nanoseconds(body.time);
  event_->values = {body.complete_value1, body.complete_value2, 0};
  if (!registry_.isClass(body.tran_handle)) {
    return registry_.stop(body.tran_handle, body.complete_value1, nanoseconds(body.time));
  }
  registry_.look(body.tran_handle);
  return STATUS_OK;
}

int32_t Dispatcher::addMetricData(const TArmMetricDataBody& body) {
  event_->id = body.tran_handle;
  event_->data_size = body.length;
  registry_.look(body.tran_handle);
  if (!isKnown(body.tran_handle)) {
    registry_.figures().unknown_handles.add();
    return STATUS_UNKNOWN_HANDLE;
  }
  if (body.length < 1 || body.length > ARM_METRIC_DATA_SIZE) {
    registry_.figures().bad_lengths.add();
    return STATUS_BAD_LENGTH;
  }
  setPayload(body.metric_data, static_cast<std::size_t>(body.length));
  return STATUS_OK;
}

// ---- what the engine does by itself -------------------------------------------------------------

void Dispatcher::publishOwn(int32_t type, int32_t id, const Applied& applied) {
  if (events_ == nullptr || !events_->isUsed()) return;
  Event event;
  event.type = type;
  event.id = id;
  event.time = wallTime();
  event.applied = applied;
  events_->publish(&event, nullptr);
}

void Dispatcher::tidy() {
  if (watch_ != nullptr) {
    for (const Departed& departed : watch_->takeDeparted()) endInstancesOf(departed);
  }
  const Expired expired = registry_.expire(bootTime() / SECOND);
  for (const auto& application : expired.applications) {
    Applied applied;
    applied.application = application;
    publishOwn(EVENT_FORGOTTEN, application->id, applied);
  }
  for (const auto& statistics : expired.classes) {
    Applied applied;
    const auto application = std::make_shared<ApplicationInfo>();
    application->name = statistics->application;
    const auto tran_class = std::make_shared<ClassInfo>();
    tran_class->name = statistics->name;
    applied.application = application;
    applied.tran_class = tran_class;
    publishOwn(EVENT_EXPIRED, 0, applied);
  }
}

void Dispatcher::endInstancesOf(const Departed& departed) {
  for (const int32_t handle : registry_.openOf(departed.process, departed.before)) {
    (void)registry_.abandon(handle, wallTime());
    publishOwn(EVENT_ABANDONED, handle, registry_.applied());
  }
  const auto rest = registry_.openOf(departed.process, std::numeric_limits<uint64_t>::max());
  if (rest.empty()) {
    registry_.processEnded(departed.process);
  } else {
    watch_->lookAgain(departed);
  }
}

}  // namespace armengine
