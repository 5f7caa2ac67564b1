// The sixteen exported calls with any arguments: without an engine, with one that answers, and with
// one that answers too often, to somebody else, cancels, stops, dies or starts again.  The engine
// works on the thread of the call, whenever that would wait.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Check.h"
#include "HostileQueue.h"
#include "Input.h"
#include "Peer.h"
#include "arm/libarmutils.h"
#include "armext.h"
#include "core/EngineQueues.h"
#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"
#include "intl/intlcodeset.h"
#include "ipc/arm_ipc.h"
#include "queueaccess.h"
#include "tracefile.h"

namespace {

constexpr std::size_t BODY_OFFSET = 12;

/// Bytes of a request up to the end of its body, by its type; 0 for types that do not exist.
std::size_t recordLength(int32_t type) {
  switch (type) {
    case 1:
      return 280;
    case 2:
    case 19:
      return 4116;
    case 3:
      return 288;
    case 4:
      return 1056;
    case 5:
      return 292;
    case 6:
      return 28;
    case 15:
    case 18:
      return 32;
    case 16:
    case 17:
      return 300;
    default:
      return 0;
  }
}

/// A field that holds a text: one zero byte at least, and nothing but zeros behind the first.
void checkText(const uint8_t* bytes, std::size_t offset, std::size_t size) {
  const uint8_t* field = bytes + offset;
  const uint8_t* end = std::find(field, field + size, 0);
  CHECK(end != field + size);
  CHECK(std::all_of(end, field + size, [](uint8_t byte) { return byte == 0; }));
}

/// What must hold for every request, whatever the arguments were.
void checkRequest(const TArmMessage& message) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&message);
  const _TIPCIdentifier self = GetIpcIdentifier();
  CHECK(CIPCUtils::sameIPCIdentifiers(message.sender_id, self));
  const std::size_t length = recordLength(message.msg_type);
  CHECK(length > BODY_OFFSET);
  CHECK(
      std::all_of(bytes + length, bytes + sizeof message, [](uint8_t byte) { return byte == 0; }));
  if (message.msg_type == 1) {
    checkText(bytes, 12, 128);
    checkText(bytes, 140, 128);
  }
  if (message.msg_type == 2) {
    checkText(bytes, 16, 3620);
    checkText(bytes, 3636, 128);
  }
  int32_t metric_length = 0;
  std::memcpy(&metric_length, bytes + 16, sizeof metric_length);
  if (message.msg_type != 19) return;
  CHECK(metric_length >= 1 && metric_length <= 4096);
  CHECK(std::all_of(bytes + 20 + metric_length, bytes + sizeof message,
                    [](uint8_t byte) { return byte == 0; }));
}

/// An engine that acts when the library would wait.
class InlineEngine final : public Peer {
 public:
  InlineEngine(Input& script, bool running) : script_(script) {
    if (running) start();
    setPeer(this);
  }
  ~InlineEngine() override {
    setPeer(nullptr);
    stop();
  }

  void act() override {}
  int sleepers() override { return -1; }
  void release(int set, const sembuf& wait) override;

  /// The result that the last answered request was given, and its correlator.
  const TArmReplyMessage& answered() const { return answer_; }
  bool isHonest() const { return honest_; }
  unsigned requests() const { return requests_; }

 private:
  void start();
  void stop() {
    engine_.reset();
    access_.reset();
  }
  void answer(const TArmMessage& message);
  void misbehave(uint8_t way, const TIPCIdentifier& to);

  Input& script_;
  std::unique_ptr<armtest::QueueAccess> access_;
  std::unique_ptr<armengine::EngineQueues> engine_;
  TArmReplyMessage answer_ = {};
  bool honest_ = true;
  unsigned requests_ = 0;
};

void InlineEngine::start() {
  const PeerActs acts;
  armengine::EngineOptions options;
  options.requests = 2;
  options.requesters = 3;
  std::string why;
  engine_ = armengine::EngineQueues::create(options, &why);
  CHECK(engine_ != nullptr);
  access_ = std::make_unique<armtest::QueueAccess>(*engine_);
}

void InlineEngine::answer(const TArmMessage& message) {
  ++requests_;
  checkRequest(message);
  const std::string content = script_.bytes(180);
  answer_ = {};
  std::memcpy(&answer_, content.data(), content.size());
  const uint8_t way = script_.byte();
  if (way >= 0xc0) {
    honest_ = false;
    misbehave(way, message.sender_id);
    if (engine_ == nullptr) return;
  }
  if (!access_->put(message.sender_id, answer_)) stop();
}

void InlineEngine::misbehave(uint8_t way, const TIPCIdentifier& to) {
  switch (way % 8) {
    case 0:
      stop();
      break;
    case 1:
      stop();
      start();
      break;
    case 2:
      (void)access_->put(to, answer_);
      break;
    case 3:
      (void)access_->put({to.processId, to.threadId + 1}, answer_);
      break;
    case 4:
      (void)access_->cancel(to);
      break;
    case 5:
      engine_->replies().setState(script_.below(4));
      break;
    case 6:
      engine_->requests().setState(script_.below(4));
      break;
    default:
      access_->setVersion(edgeValue(script_));
  }
}

void InlineEngine::release(int set, const sembuf&) {
  TArmMessage message;
  if (engine_ != nullptr && armtest::takeRequestIfAny(engine_->requests(), message))
    return answer(message);
  // Nobody owes an answer any more: only an engine that goes can end the wait.
  CHECK(!honest_);
  stop();
  (void)semctl(set, 0, IPC_RMID);
}

/// The arguments of a call: memory of exactly the size that the call may use, at any address.
class Arguments {
 public:
  explicit Arguments(Input& input) : input_(input) {}

  int32_t number() { return static_cast<int32_t>(edgeValue(input_)); }

  /// Null, a text of up to limit bytes and some more, or one without an end that fills the limit.
  char* text(std::size_t limit) {
    const uint8_t kind = input_.byte();
    if (kind >= 0xf0) return nullptr;
    if (kind >= 0xe8) return keep("*", true);
    if (kind >= 0xe0) return keep(std::string(limit, 'x'), false);
    if (kind < 0x40) return keep(input_.text(40), true);
    return keep(input_.text(limit + 4), true);
  }

  /// Null, or a block of a size that depends on its format word.
  void* block(const std::function<std::size_t(int32_t)>& size_of) {
    const uint8_t kind = input_.byte();
    if (kind >= 0xf0) return nullptr;
    constexpr int32_t FORMATS[] = {1, 2, 101, 0};
    int32_t format = FORMATS[kind % 4];
    if (kind >= 0xc0) format = number();
    std::string bytes(size_of(format), '\0');
    bytes.replace(0, sizeof format, reinterpret_cast<const char*>(&format), sizeof format);
    const std::string content = input_.bytes(input_.byte());
    for (std::size_t i = sizeof format; i < bytes.size() && i - 4 < content.size(); ++i) {
      bytes[i] = content[i - 4];
    }
    if (kind % 8 >= 4 && bytes.size() > 197) bytes[197] = static_cast<char>(kind);
    return keep(std::string(kind / 16 % 4, '\0') + bytes, false) + kind / 16 % 4;
  }

  void* buffer(std::size_t size) { return keep(std::string(size, 'm'), false); }
  bool flag() { return input_.flag(); }

 private:
  char* keep(const std::string& bytes, bool terminated) {
    kept_.push_back(std::make_unique<Exact>(bytes, terminated));
    return kept_.back()->get();
  }

  Input& input_;
  std::vector<std::unique_ptr<Exact>> kept_;
};

std::size_t sizeWithCorrelator(int32_t) {
  return 256;
}
std::size_t sizeForUpdate(int32_t format) {
  return format == 1 ? 256 : format == 2 ? 1024 : 4;
}
std::size_t sizeForClass(int32_t format) {
  return format == 101 ? 344 : 4;
}

int32_t reportOne(Arguments& from, bool instance) {
  const int32_t handle = from.number();
  void* block = from.block(sizeWithCorrelator);
  const int32_t size = from.number();
  const int32_t stamp = from.number();
  const int32_t values[3] = {from.number(), from.number(), from.number()};
  return (instance ? arm_transactionInstanceReport : arm_transactionReport)(
      handle, 0, block, size, stamp, values[0], values[1], values[2]);
}

int32_t completeOne(Arguments& from, bool instance) {
  const int32_t handle = from.number();
  const int32_t value = from.number();
  return (instance ? arm_completeTransactionInstance : arm_completeTransaction)(handle, value,
                                                                                from.number());
}

int32_t associate(Arguments& from) {
  const int32_t handle = from.number();
  const int32_t length = from.number();
  const bool accepted = length > 0 && length <= 4096;
  void* buffer =
      from.flag() ? nullptr : from.buffer(accepted ? static_cast<std::size_t>(length) : 0);
  return arm_associateMetricData(handle, buffer, length);
}

int32_t updateOne(Arguments& from) {
  const int32_t handle = from.number();
  void* block = from.block(sizeForUpdate);
  return arm_update(handle, from.number(), block, from.number());
}

int32_t stopOne(Arguments& from) {
  const int32_t handle = from.number();
  const int32_t status = from.number();
  const int32_t size = from.number();
  void* block = from.block([size](int32_t) { return std::size_t{size > 0 ? 256U : 4U}; });
  return arm_stop(handle, status, from.number(), block, size);
}

int32_t startOne(Arguments& from) {
  const int32_t id = from.number();
  void* block = from.block(sizeWithCorrelator);
  return arm_start(id, from.number(), block, from.number());
}

int32_t initOne(Arguments& from, bool wide) {
  char* name = from.text(128);
  char* user = from.text(128);
  const int32_t flags = from.number();
  void* block = from.block(sizeForClass);
  const int32_t size = from.number();
  if (!wide) return arm_init(name, user, flags, block, size);
  return w_ArmInit(from.flag() ? 1 : 0, name, user, flags, block, size);
}

int32_t getidOne(Arguments& from, bool wide) {
  const int32_t id = from.number();
  char* name = from.text(3620);
  char* detail = from.text(128);
  void* block = from.block(sizeForClass);
  const int32_t size = from.number();
  if (!wide) return arm_getid(id, name, detail, 0, block, size);
  return w_ArmGetID(from.flag() ? 1 : 0, id, name, detail, 0, block, size);
}

int32_t endOne(Arguments& from) {
  const int32_t id = from.number();
  return arm_end(id, from.number(), nullptr, from.number());
}

/// A code set's name is only looked for, so it needs an end.
void chooseCodeset(Input& input) {
  constexpr const char* NAMES[] = {"UTF-8", "ISO-8859-1", "UTF-16LE", "ISO-2022-JP", "HZ", "UTF-7"};
  const uint8_t kind = input.byte();
  const std::string name = kind < 0x80 ? NAMES[kind % std::size(NAMES)] : input.text(300);
  Exact copy(name, true);
  const int32_t result = SetExpectedCodeset(kind >= 0xf0 ? nullptr : copy.get());
  CHECK(result == 0 || result == -1003 || result == -3004);
}

/// A call that posts.  Its result is the answer's, or one of its own.
void measure(Input& input, InlineEngine& engine) {
  const unsigned requests_before = engine.requests();
  const uint8_t which = input.byte();
  Arguments from(input);
  const std::function<int32_t()> calls[] = {[&] { return initOne(from, false); },
                                            [&] { return initOne(from, true); },
                                            [&] { return getidOne(from, false); },
                                            [&] { return getidOne(from, true); },
                                            [&] { return startOne(from); },
                                            [&] { return updateOne(from); },
                                            [&] { return stopOne(from); },
                                            [&] { return endOne(from); },
                                            [&] { return reportOne(from, false); },
                                            [&] { return reportOne(from, true); },
                                            [&] { return completeOne(from, false); },
                                            [&] { return completeOne(from, true); },
                                            [&] { return associate(from); }};
  const int32_t result = calls[which % std::size(calls)]();
  if (!engine.isHonest()) return;
  if (engine.requests() > requests_before) {
    CHECK(engine.requests() == requests_before + 1);
    CHECK(result == engine.answered().result);
  } else {
    CHECK(result == 0 || result == -1 || result == -2 || result == -1003 || result == IGNOREID);
  }
}

void callOnce(Input& input, InlineEngine& engine) {
  switch (input.byte() % 16) {
    case 0:
      chooseCodeset(input);
      break;
    case 1:
      CHECK(std::strcmp(arm_getCorrelatorKey(), "ARM_CORRELATOR") == 0);
      (void)GetExpectedCodeset();
      break;
    default:
      measure(input, engine);
  }
}

/// The library as it is after loading.
void startAnew(bool tracing, bool basic) {
  (void)unlink(armtest::TRACE_FILE);
  VDebugRun = tracing ? 1 : 0;
  wcDebugSetLogFormat(basic ? 0 : 1);
  CloseIPC();
  IPCInitialized = false;
  OutQueueCount = 0;
  FreeIntlICUConverter();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  const uint8_t mode = input.byte();
  startAnew((mode & 1) != 0, (mode & 2) != 0);
  InlineEngine engine(input, (mode & 12) != 12);
  for (int calls = 0; calls < 8 && !input.empty(); ++calls) callOnce(input, engine);
  CloseIPC();
  return 0;
}
