#include "registry/Dispatcher.h"

#include <cstring>
#include <string>

#include "armext.h"

namespace armengine {

namespace {

/// A text field.  Every process may write requests: the terminating zero is not relied upon.
template <std::size_t N>
std::string text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

uint64_t nanoseconds(const TArmTimeStamp& time) {
  return uint64_t{time.seconds} * 1'000'000'000 + time.nanoseconds;
}

/// The metric descriptions and their size, compared as they are; empty without any.
std::string descriptions(const TArmGetidBody& body) {
  if (body.data_size <= 0) return {};
  return std::string(reinterpret_cast<const char*>(body.data), sizeof body.data) +
         std::to_string(body.data_size);
}

/// The block of a start or a report.
class Format1Block {
 public:
  Format1Block(const uint8_t (&data)[ARM_FORMAT1_SIZE], int32_t data_size) {
    if (data_size > 0) std::memcpy(&block_, data, sizeof block_);
  }

  bool wantsCorrelator() const { return has(ARM_CorrReq_f); }
  bool wantsTrace() const { return has(ARM_TraceReq_f); }
  std::optional<CorrelatorBytes> parent() const {
    if (!has(ARM_CorrPar_f)) return std::nullopt;
    CorrelatorBytes bytes;
    std::memcpy(bytes.data(), block_.correlator.bytes, bytes.size());
    return bytes;
  }

 private:
  bool has(unsigned flag) const {
    return block_.format == ARM_DATA_FORMAT_1 && (block_.flags[0] & flag) != 0;
  }

  arm_user_data1_t block_ = {};
};

void addCorrelator(const Started& started, const Format1Block& block, TArmReplyMessage* reply) {
  if (started.result < 0 || !block.wantsCorrelator()) return;
  reply->correlator_flag = 1;
  std::memcpy(reply->correlator, started.correlator.data(), started.correlator.size());
}

}  // namespace

TArmReplyMessage Dispatcher::answer(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  TArmReplyMessage reply = {};
  switch (request.msg_type) {
    case ARM_MSG_START: {
      const Started started = start(body.start);
      reply.result = started.result;
      addCorrelator(started, {body.start.data, body.start.data_size}, &reply);
      break;
    }
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT: {
      const Started reported = report(body.report);
      reply.result = reported.result;
      if (registry_.isClass(body.report.tran_handle)) {
        addCorrelator(reported, {body.report.data, body.report.data_size}, &reply);
      }
      break;
    }
    default:
      reply.result = statusFor(request);
  }
  return reply;
}

/// The answer to the requests that no correlator can come with.
int32_t Dispatcher::statusFor(const TArmMessage& request) {
  const TArmMessageBody& body = request.messages;
  switch (request.msg_type) {
    case ARM_MSG_INIT:
      return registry_.addApplication(text(body.init.appl_name));
    case ARM_MSG_GETID:
      return registry_.addClass(body.getid.appl_id, text(body.getid.tran_name),
                                descriptions(body.getid));
    case ARM_MSG_UPDATE:
      return registry_.update(body.update.start_handle);
    case ARM_MSG_STOP:
      return registry_.stop(body.stop.start_handle, body.stop.comp_status,
                            nanoseconds(body.stop.time));
    case ARM_MSG_END:
      return registry_.endApplication(body.end.appl_id);
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      return complete(body.complete);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
      return addMetricData(body.metric_data);
    default:
      return STATUS_UNKNOWN_MESSAGE;
  }
}

Started Dispatcher::start(const TArmStartBody& body) {
  const Format1Block block(body.data, body.data_size);
  return registry_.start(body.tran_id, block.parent(), block.wantsTrace(), nanoseconds(body.time));
}

// The numbers and value words of reports, completions and metric data mean to this engine: a number
// names an open instance (its start handle) or a transaction class; any other is refused.  A report
// on a class counts one finished instance: value 1 is its completion status as in a stop, value 2
// its response time in milliseconds, value 3 is the application's own.  A report on an instance is
// progress, as an update.  A completion of an instance stops it at the time of the call with value
// 1 as its completion status; value 2 is the application's own.  A completion of a class, and
// metric data, are acknowledged and change nothing.

Started Dispatcher::report(const TArmReportBody& body) {
  if (registry_.isOpen(body.tran_handle)) return {registry_.update(body.tran_handle)};
  constexpr uint64_t MILLISECOND = 1'000'000;
  const Format1Block block(body.data, body.data_size);
  const uint64_t duration =
      body.report_value2 > 0 ? static_cast<uint64_t>(body.report_value2) * MILLISECOND : 0;
  return registry_.report(body.tran_handle, block.parent(), block.wantsTrace(), body.report_value1,
                          duration);
}

int32_t Dispatcher::complete(const TArmCompleteBody& body) {
  if (registry_.isClass(body.tran_handle)) return STATUS_OK;
  return registry_.stop(body.tran_handle, body.complete_value1, nanoseconds(body.time));
}

int32_t Dispatcher::addMetricData(const TArmMetricDataBody& body) const {
  if (!isKnown(body.tran_handle)) return STATUS_UNKNOWN_HANDLE;
  const bool fits = body.length >= 1 && body.length <= ARM_METRIC_DATA_SIZE;
  return fits ? STATUS_OK : STATUS_BAD_LENGTH;
}

}  // namespace armengine
