// An engine that does what a test tells it.
//
//   scripted_engine REQUESTS REQUESTERS READY [PREFIX]
//
// Commands come in on descriptor 3, the taken requests go into the mapping of descriptor 4.

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ScriptProtocol.h"
#include "core/EngineQueues.h"
#include "diag/CkesErrorManager.h"
#include "queueaccess.h"

namespace armtest {
namespace {

constexpr int FOREVER = -1;
constexpr int32_t ANY_TYPE = 0;

struct Rule {
  int32_t type;
  Reaction reaction;
  int32_t result;
  int32_t flag;
  int32_t times;
  uint8_t correlator[CORRELATOR_SIZE];
};

struct HeldReply {
  TIPCIdentifier to;
  TArmReplyMessage reply;
};

TArmReplyMessage makeReply(const Rule& rule) {
  TArmReplyMessage reply;
  // What the library does not read must not matter.
  std::memset(&reply, 0xEE, sizeof reply);
  reply.result = rule.result;
  reply.correlator_flag = static_cast<uint8_t>(rule.flag);
  std::memcpy(reply.correlator, rule.correlator, sizeof reply.correlator);
  return reply;
}

class Engine {
 public:
  Engine(armengine::EngineQueues& queues, EngineLog& log) : queues_(queues), log_(log) {}

  /// Serves requests until the test quits.
  void serve();
  /// Obeys commands until the test quits.
  void obey();

 private:
  bool waitWhilePaused();
  void handle(const TArmMessage& message);
  Rule ruleFor(const TArmMessage& message);
  int32_t execute(const Command& command);
  int32_t addRule(const Command& command);
  int32_t release();
  int32_t pause();
  int32_t resume();
  void quit();
  int32_t deliver(const TIPCIdentifier& to, const TArmReplyMessage& reply);

  armengine::EngineQueues& queues_;
  QueueAccess access_{queues_};
  EngineLog& log_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Rule> rules_;
  std::vector<HeldReply> held_;
  bool paused_ = false;
  bool idle_ = false;
  bool quitting_ = false;
};

void Engine::serve() {
  while (waitWhilePaused()) {
    TArmMessage message;
    if (takeRequest(queues_.requests(), message)) {
      handle(message);
    } else {
      usleep(1000);  // a stopped queue is left at once
    }
  }
}

bool Engine::waitWhilePaused() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (paused_ && !quitting_) {
    idle_ = true;
    changed_.notify_all();
    changed_.wait(lock);
  }
  idle_ = false;
  return !quitting_;
}

void Engine::handle(const TArmMessage& message) {
  const uint32_t number = log_.taken.load();
  if (number < KEPT_RECORDS) std::memcpy(log_.records[number], &message, RECORD_SIZE);
  const std::lock_guard<std::mutex> lock(mutex_);
  const Rule rule = ruleFor(message);
  const TArmReplyMessage reply = makeReply(rule);
  if (rule.reaction == Reaction::hold) held_.push_back({message.sender_id, reply});
  log_.taken.store(number + 1);
  if (rule.reaction == Reaction::reply || rule.reaction == Reaction::derive) {
    (void)deliver(message.sender_id, reply);
  }
}

Rule Engine::ruleFor(const TArmMessage& message) {
  Rule found = {message.msg_type, Reaction::reply, defaultResult(message.msg_type), 0, 0, {}};
  for (Rule& rule : rules_) {
    if (rule.times == 0 || (rule.type != ANY_TYPE && rule.type != message.msg_type)) continue;
    if (rule.times != FOREVER) --rule.times;
    found = rule;
    break;
  }
  if (found.reaction == Reaction::derive) {
    int32_t id = 0;
    std::memcpy(&id, reinterpret_cast<const uint8_t*>(&message) + 12, sizeof id);
    found.result = derivedResult(id);
  }
  return found;
}

int32_t Engine::deliver(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
  return access_.put(to, reply) ? 0 : 1;
}

int32_t Engine::addRule(const Command& command) {
  Rule rule = {command.values[0], static_cast<Reaction>(command.values[1]),
               command.values[2], command.values[3],
               command.values[4], {}};
  std::memcpy(rule.correlator, command.correlator, sizeof rule.correlator);
  const std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back(rule);
  return 0;
}

int32_t Engine::release() {
  std::vector<HeldReply> held;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    held.swap(held_);
  }
  for (const HeldReply& one : held) (void)deliver(one.to, one.reply);
  return static_cast<int32_t>(held.size());
}

int32_t Engine::pause() {
  std::unique_lock<std::mutex> lock(mutex_);
  paused_ = true;
  queues_.requests().interrupt();
  changed_.wait(lock, [this] { return idle_; });
  return 0;
}

int32_t Engine::resume() {
  const std::lock_guard<std::mutex> lock(mutex_);
  paused_ = false;
  changed_.notify_all();
  return 0;
}

void Engine::quit() {
  const std::lock_guard<std::mutex> lock(mutex_);
  quitting_ = true;
  queues_.requests().interrupt();
  changed_.notify_all();
}

int32_t Engine::execute(const Command& command) {
  const int32_t value = command.values[0];
  const TIPCIdentifier requester = {value, static_cast<uint32_t>(command.values[1])};
  switch (command.op) {
    case Op::add_rule:
      return addRule(command);
    case Op::forget_rules: {
      const std::lock_guard<std::mutex> lock(mutex_);
      rules_.clear();
      return 0;
    }
    case Op::release:
      return release();
    case Op::cancel:
      return access_.cancel(requester) ? 1 : 0;
    case Op::put:
      return deliver(requester, makeReply({0, Reaction::reply, command.values[2], 0, 0, {}}));
    case Op::request_state:
      queues_.requests().setState(static_cast<uint32_t>(value));
      return 0;
    case Op::reply_state:
      queues_.replies().setState(static_cast<uint32_t>(value));
      return 0;
    case Op::ready:
      queues_.requests().setReady(value != 0);
      return 0;
    case Op::version:
      access_.setVersion(static_cast<uint32_t>(value));
      return 0;
    case Op::pause:
      return pause();
    case Op::resume:
      return resume();
    case Op::heads_in_use:
      return static_cast<int32_t>(queues_.replies().headsInUse());
    case Op::used_items:
      return static_cast<int32_t>(queues_.replies().usedItems());
    case Op::reclaim:
      return static_cast<int32_t>(queues_.replies().reclaimDeparted());
    case Op::quit:
      quit();
      return 0;
  }
  return -1;
}

void sendAnswer(int32_t value, const std::string& why = "") {
  Answer answer = {};
  answer.value = value;
  std::snprintf(answer.why, sizeof answer.why, "%s", why.c_str());
  if (send(ENGINE_SOCKET, &answer, sizeof answer, MSG_NOSIGNAL) < 0) _exit(EXIT_FAILURE);
}

void Engine::obey() {
  for (;;) {
    Command command;
    const ssize_t length = recv(ENGINE_SOCKET, &command, sizeof command, MSG_WAITALL);
    // The test has gone.
    if (length != static_cast<ssize_t>(sizeof command)) _exit(EXIT_FAILURE);
    const int32_t value = execute(command);
    if (command.op == Op::quit) return;
    sendAnswer(value);
  }
}

int run(int argc, char** argv) {
  if (argc < 4) return EXIT_FAILURE;
  armengine::EngineOptions options;
  options.requests = static_cast<uint16_t>(std::strtoul(argv[1], nullptr, 10));
  options.requesters = static_cast<uint16_t>(std::strtoul(argv[2], nullptr, 10));
  options.ready = std::strcmp(argv[3], "1") == 0;
  if (argc > 4) options.prefix = argv[4];
  void* mapping =
      mmap(nullptr, sizeof(EngineLog), PROT_READ | PROT_WRITE, MAP_SHARED, ENGINE_MAPPING, 0);
  if (mapping == MAP_FAILED) return EXIT_FAILURE;

  std::string why;
  auto queues = armengine::EngineQueues::create(options, &why);
  if (queues == nullptr) {
    sendAnswer(-1, why);
    return EXIT_FAILURE;
  }
  {
    // Opens what it needs by its names, which a test may take away as soon as it has the answer.
    Engine engine(*queues, *static_cast<EngineLog*>(mapping));
    sendAnswer(0);
    std::thread commands([&engine] {
      // The first failure of a process gives its thread an error stack, which is this thread's to
      // free.
      (void)CkesErrorManager::RegisterThread();
      engine.obey();
      (void)CkesErrorManager::UnregisterThread();
    });
    engine.serve();
    commands.join();
    queues.reset();
  }
  sendAnswer(0);
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace armtest

int main(int argc, char** argv) {
  return armtest::run(argc, argv);
}
