#include "dispatch/Replay.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/Time.h"
#include "dispatch/Dispatcher.h"
#include "events/EventLines.h"
#include "text/Hex.h"

namespace armengine {

namespace {

using Json = nlohmann::json;

/// "1763730395.123456000"
uint64_t timeOf(const Json& line) {
  const std::string text = line.at("time").get<std::string>();
  const std::size_t point = text.find('.');
  if (point == std::string::npos || text.size() != point + 10) throw std::invalid_argument("time");
  return std::stoull(text.substr(0, point)) * SECOND + std::stoull(text.substr(point + 1));
}

TArmTimeStamp stampOf(const Json& line) {
  const uint64_t time = timeOf(line);
  return {static_cast<uint32_t>(time / SECOND), static_cast<uint32_t>(time % SECOND)};
}

int32_t number(const Json& line, const char* key) {
  return line.value(key, int32_t{0});
}

std::string bytes(const Json& line, const char* key) {
  const auto decoded = armtext::bytesOfHex(line.value(key, std::string()));
  if (!decoded) throw std::invalid_argument(key);
  return *decoded;
}

/// A name in its field, by its bytes when the text does not hold them.
template <std::size_t N>
void copyName(const Json& line, const char* key, const char* raw_key, char (&field)[N]) {
  const std::string raw = bytes(line, raw_key);
  const std::string name = raw.empty() ? line.value(key, std::string()) : raw;
  std::memcpy(field, name.data(), std::min(name.size(), N));
}

template <std::size_t N>
void copyBlock(const Json& line, uint8_t (&field)[N], int32_t* size) {
  const std::string block = bytes(line, "block");
  std::memcpy(field, block.data(), std::min(block.size(), N));
  *size = number(line, "size");
}

int32_t typeOf(const std::string& name, const Json& line) {
  for (int32_t type = 1; type <= EVENT_EXPIRED; ++type) {
    if (name != "unknown" && name == nameOfEvent(type)) return type;
  }
  return number(line, "type");
}

void fillBody(const Json& line, TArmMessage* request) {
  TArmMessageBody& body = request->messages;
  const int32_t id = number(line, "id");
  const TArmTimeStamp time = stampOf(line);
  switch (request->msg_type) {
    case ARM_MSG_INIT:
      copyName(line, "application", "application_bytes", body.init.appl_name);
      copyName(line, "user", "", body.init.appl_user_id);
      break;
    case ARM_MSG_GETID:
      body.getid.appl_id = id;
      copyName(line, "transaction", "transaction_bytes", body.getid.tran_name);
      copyName(line, "detail", "", body.getid.tran_detail);
      copyBlock(line, body.getid.data, &body.getid.data_size);
      break;
    case ARM_MSG_START:
      body.start.tran_id = id;
      body.start.time = time;
      copyBlock(line, body.start.data, &body.start.data_size);
      break;
    case ARM_MSG_UPDATE:
      body.update.start_handle = id;
      body.update.time = time;
      copyBlock(line, body.update.data, &body.update.data_size);
      break;
    case ARM_MSG_STOP:
      body.stop.start_handle = id;
      body.stop.comp_status = number(line, "status");
      body.stop.time = time;
      copyBlock(line, body.stop.data, &body.stop.data_size);
      break;
    case ARM_MSG_END:
      body.end.appl_id = id;
      break;
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      body.complete.tran_handle = id;
      body.complete.complete_value1 = line.at("values").at(0);
      body.complete.complete_value2 = line.at("values").at(1);
      body.complete.time = time;
      break;
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT:
      body.report.tran_handle = id;
      body.report.report_value1 = line.at("values").at(0);
      body.report.report_value2 = line.at("values").at(1);
      body.report.report_value3 = line.at("values").at(2);
      body.report.time = time;
      copyBlock(line, body.report.data, &body.report.data_size);
      break;
    case ARM_MSG_ASSOCIATE_METRIC_DATA: {
      body.metric_data.tran_handle = id;
      copyBlock(line, body.metric_data.metric_data, &body.metric_data.length);
      break;
    }
    default:
      break;
  }
}

class Replayer {
 public:
  explicit Replayer(const RegistrySettings& settings) : settings_(settings) {
    publisher_.add(ring_);
  }

  void read(const std::string& text) {
    try {
      const Json line = Json::parse(text);
      const std::string name = line.at("event");
      if (name == "engine") {
        begin(line);
      } else {
        apply(line, name);
      }
    } catch (const std::exception&) {
      ++result_.unreadable;
    }
  }

  Replayed take() { return std::move(result_); }

 private:
  /// A file that was opened again, or appended to by the same engine, begins anew in its middle.
  void begin(const Json& line) {
    const uint64_t engine = std::stoull(line.at("engine").get<std::string>());
    if (line.at("version") != EVENT_LINES_VERSION) throw std::invalid_argument("version");
    if (result_.registry != nullptr && result_.registry->engine() == engine) return;
    // An earlier engine's tables ended with it.
    result_ = Replayed();
    result_.registry = std::make_unique<Registry>(engine, settings_);
    result_.recent = std::make_unique<RecentTransactions>(wallTime);
    dispatcher_ = std::make_unique<Dispatcher>(*result_.registry, &publisher_);
    last_number_ = 0;
  }

  void apply(const Json& line, const std::string& name) {
    if (dispatcher_ == nullptr) throw std::invalid_argument("no first line");
    const uint64_t own_number = line.at("n");
    const int32_t type = typeOf(name, line);
    if (type >= EVENT_ABANDONED && type <= EVENT_EXPIRED) {
      applyOwn(line, type);
    } else {
      applyRequest(line, type);
    }
    if (own_number > last_number_ + 1) result_.missing += own_number - last_number_ - 1;
    last_number_ = own_number;
    ++result_.events;
  }

  void applyOwn(const Json& line, int32_t type) {
    Registry& registry = *result_.registry;
    if (type == EVENT_ABANDONED) {
      abandon(line);
    } else if (type == EVENT_FORGOTTEN) {
      registry.forget(number(line, "id"));
    } else {
      registry.forgetStatistics(line.at("application"), line.at("transaction"));
    }
  }

  void abandon(const Json& line) {
    Event event;
    event.type = EVENT_ABANDONED;
    event.id = number(line, "id");
    event.time = timeOf(line);
    event.subject = result_.registry->abandon(event.id, event.time).subject;
    result_.recent->consume(event, {});
  }

  void applyRequest(const Json& line, int32_t type) {
    TArmMessage request = {};
    request.msg_type = type;
    request.sender_id.processId = number(line, "process");
    request.sender_id.threadId = line.value("thread", uint32_t{0});
    fillBody(line, &request);
    const int32_t expected = number(line, "result");
    // The next number that is given is the one that was given then.
    if (expected > 0) result_.registry->continueAfter(expected - 1);
    if (dispatcher_->answer(request).result != expected) ++result_.different;
    while (ring_.pop(&event_, &payload_)) result_.recent->consume(event_, payload_);
  }

  static constexpr std::size_t ONE_EVENT = 1;
  static constexpr std::size_t ONE_PAYLOAD = 4096;

  const RegistrySettings settings_;
  EventRing ring_{ONE_EVENT, ONE_PAYLOAD};
  EventPublisher publisher_;
  Event event_;
  Payload payload_;
  std::unique_ptr<Dispatcher> dispatcher_;
  uint64_t last_number_ = 0;
  Replayed result_;
};

}  // namespace

Replayed replayEvents(std::istream& lines, const RegistrySettings& settings) {
  Replayer replayer(settings);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) replayer.read(line);
  }
  return replayer.take();
}

}  // namespace armengine
