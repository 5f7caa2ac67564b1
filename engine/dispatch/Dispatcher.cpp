#include "dispatch/Dispatcher.h"

#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "armext.h"
#include "base/Time.h"
#include "dispatch/RequestBlocks.h"

namespace armengine {

namespace {

/// A text field.  Every process may write requests: the terminating zero is not relied upon.
template <std::size_t N>
std::string_view text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
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

void addCorrelator(const Started& started, const Format1Block& block, TArmReplyMessage* reply) {
  if (started.result < 0 || !block.wantsCorrelator()) return;
  reply->correlator_flag = 1;
  std::memcpy(reply->correlator, started.correlator.data(), started.correlator.size());
}

}  // namespace

TArmReplyMessage Dispatcher::apply(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  TArmReplyMessage reply = {};
  observe(request);
  switch (request.msg_type) {
    case ARM_MSG_START: {
      Started started = start(request);
      reply.result = started.result;
      addCorrelator(started, {body.start.data, body.start.data_size}, &reply);
      keepEvent(request, std::move(started));
      break;
    }
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT: {
      Started reported = report(request);
      reply.result = reported.result;
      if (registry_.isClass(body.report.tran_handle)) {
        addCorrelator(reported, {body.report.data, body.report.data_size}, &reply);
      }
      keepEvent(request, std::move(reported));
      break;
    }
    default: {
      Answer answer = answerTo(request);
      reply.result = answer.result;
      keepEvent(request, std::move(answer));
    }
  }
  return reply;
}

void Dispatcher::keepEvent(const TArmMessage& request, Answer&& answer) {
  if (!hasListeners()) return;
  makeEvent(request, std::move(answer), &waiting_[waiting_count_++]);
  if (waiting_count_ == waiting_.size()) publish();
}

void Dispatcher::publish() {
  for (std::size_t i = 0; i < waiting_count_; ++i) {
    events_->publish(&waiting_[i].event, waiting_[i].payload);
  }
  waiting_count_ = 0;
}

void Dispatcher::observe(const TArmMessage& request) {
  registry_.counters().requestsOf(request.msg_type).add();
  if (watch_ == nullptr) return;
  now_ = bootTime();
  watch_->observe(request.sender_id.processId, now_);
}

/// The answer to the requests that no correlator can come with.
Answer Dispatcher::answerTo(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  switch (request.msg_type) {
    case ARM_MSG_INIT:
      return addApplication(request);
    case ARM_MSG_GETID:
      return addClass(request);
    case ARM_MSG_UPDATE:
      return update(request);
    case ARM_MSG_STOP:
      return stop(body.stop);
    case ARM_MSG_END:
      return registry_.endApplication(body.end.appl_id);
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      return complete(body.complete);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
      return addMetricData(body.metric_data);
    default:
      registry_.counters().unknown_messages.add();
      return {STATUS_UNKNOWN_MESSAGE};
  }
}

Answer Dispatcher::addApplication(const TArmMessage& request) {
  const TArmInitBody& body = request.messages.init;
  return registry_.addApplication(text(body.appl_name), text(body.appl_user_id),
                                  request.sender_id.processId);
}

Answer Dispatcher::addClass(const TArmMessage& request) {
  const TArmGetidBody& body = request.messages.getid;
  return registry_.addClass(body.appl_id, text(body.tran_name), Descriptions(body).view(),
                            text(body.tran_detail), request.sender_id.processId);
}

Started Dispatcher::start(const TArmMessage& request) {
  const TArmStartBody& body = request.messages.start;
  StartData data = Format1Block(body.data, body.data_size).startData();
  data.process = request.sender_id.processId;
  data.seen = now_;
  return registry_.start(body.tran_id, data, nanoseconds(body.time));
}

Answer Dispatcher::update(const TArmMessage& request) {
  const TArmUpdateBody& body = request.messages.update;
  return registry_.update(body.start_handle, blockOf(body.data, body.data_size),
                          request.sender_id.processId);
}

Answer Dispatcher::stop(const TArmStopBody& body) {
  return registry_.stop(body.start_handle, body.comp_status, nanoseconds(body.time),
                        blockOf(body.data, body.data_size));
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
  constexpr uint64_t MILLISECOND = 1'000'000;
  const TArmReportBody& body = request.messages.report;
  const int32_t process = request.sender_id.processId;
  if (registry_.isOpen(body.tran_handle)) {
    return {registry_.update(body.tran_handle, blockOf(body.data, body.data_size), process)};
  }
  StartData data = Format1Block(body.data, body.data_size).startData();
  data.process = process;
  const uint64_t duration =
      body.report_value2 > 0 ? static_cast<uint64_t>(body.report_value2) * MILLISECOND : 0;
  return registry_.report(body.tran_handle, data, body.report_value1, duration);
}

Answer Dispatcher::complete(const TArmCompleteBody& body) {
  if (registry_.isClass(body.tran_handle)) {
    return {STATUS_OK, registry_.describe(body.tran_handle)};
  }
  return registry_.stop(body.tran_handle, body.complete_value1, nanoseconds(body.time));
}

Answer Dispatcher::addMetricData(const TArmMetricDataBody& body) {
  Answer answer = {STATUS_OK, registry_.describe(body.tran_handle)};
  if (answer.subject.tran_class == nullptr) {
    registry_.counters().unknown_handles.add();
    answer.result = STATUS_UNKNOWN_HANDLE;
  } else if (body.length < 1 || body.length > ARM_METRIC_DATA_SIZE) {
    registry_.counters().bad_lengths.add();
    answer.result = STATUS_BAD_LENGTH;
  }
  return answer;
}

// ---- what the engine does by itself -------------------------------------------------------------

void Dispatcher::publishOwn(int32_t type, int32_t id, const Subject& subject) {
  if (!hasListeners()) return;
  Event event;
  event.type = type;
  event.id = id;
  event.time = wallTime();
  event.subject = subject;
  events_->publish(&event, nullptr);
}

void Dispatcher::tidy() {
  if (watch_ != nullptr) {
    for (const Departed& departed : watch_->takeDeparted()) endInstancesOf(departed);
  }
  const Expired expired = registry_.expire(bootTime() / SECOND);
  for (const auto& application : expired.applications) {
    Subject subject;
    subject.application = application;
    publishOwn(EVENT_FORGOTTEN, application->id, subject);
  }
  for (const auto& statistics : expired.classes) {
    Subject subject;
    const auto application = std::make_shared<ApplicationInfo>();
    application->name = statistics->application;
    const auto tran_class = std::make_shared<ClassInfo>();
    tran_class->name = statistics->name;
    subject.application = application;
    subject.tran_class = tran_class;
    publishOwn(EVENT_EXPIRED, 0, subject);
  }
}

void Dispatcher::endInstancesOf(const Departed& departed) {
  for (const int32_t handle : registry_.openOf(departed.process, departed.before)) {
    publishOwn(EVENT_ABANDONED, handle, registry_.abandon(handle, wallTime()).subject);
  }
  const auto left = registry_.openOf(departed.process, std::numeric_limits<uint64_t>::max());
  if (left.empty()) {
    registry_.processEnded(departed.process);
  } else {
    watch_->watchAgain(departed);
  }
}

}  // namespace armengine
