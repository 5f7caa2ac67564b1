#include "armcontract/Bench.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace armcontract {

namespace {

constexpr std::size_t SMALL_STACK = 128 * 1024;
/// How long an engine is given for a second reply to the same request, or another slip.
constexpr Duration SETTLING{20};
/// An application that no engine has: ids are given from below.
constexpr int32_t STRANGE_ID = 2147483646;

}  // namespace

// ---- requesters ---------------------------------------------------------------------------------

Requester::Requester() {
  pthread_attr_t attributes;
  (void)pthread_attr_init(&attributes);
  (void)pthread_attr_setstacksize(&attributes, SMALL_STACK);
  const auto body = [](void* self) -> void* {
    static_cast<Requester*>(self)->park();
    return nullptr;
  };
  const int error = pthread_create(&thread_, &attributes, body, this);
  (void)pthread_attr_destroy(&attributes);
  if (error != 0) throw Unchecked("this process may not have so many threads");
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return known_; });
}

Requester::~Requester() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    over_ = true;
    changed_.notify_all();
  }
  (void)pthread_join(thread_, nullptr);
}

void Requester::park() {
  std::unique_lock<std::mutex> lock(mutex_);
  identity_ = {static_cast<uint32_t>(getpid()), static_cast<uint32_t>(syscall(SYS_gettid))};
  known_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return over_; });
}

Requesters makeRequesters(unsigned count) {
  Requesters requesters;
  for (unsigned i = 0; i < count; ++i) requesters.push_back(std::make_unique<Requester>());
  return requesters;
}

wire::Request makeRequest(int32_t type, Identity from) {
  wire::Request request = {};
  request.put32(wire::SENDER_PROCESS, static_cast<int32_t>(from.process));
  request.put32(wire::SENDER_THREAD, static_cast<int32_t>(from.thread));
  request.put32(wire::TYPE, type);
  return request;
}

wire::Request makePing(Identity from) {
  wire::Request request = makeRequest(wire::END, from);
  request.put32(wire::ID, STRANGE_ID);
  return request;
}

// ---- the engine ---------------------------------------------------------------------------------

namespace {

void removeObjects(const Channel& channel) {
  for (const LockedSegment* queue : {static_cast<const LockedSegment*>(&channel.requests),
                                     static_cast<const LockedSegment*>(&channel.replies)}) {
    removeSegment(queue->memory.id());
    removeSet(queue->lock_set);
  }
  for (const SemaphoreSet& set :
       {channel.requests.empty, channel.requests.overflow, channel.replies.wake}) {
    removeSet(set);
  }
}

}  // namespace

Bench::Bench(Settings settings)
    : settings_(std::move(settings)), names_(Names::of(settings_.prefix)) {}

Bench::~Bench() {
  if (hasOwnEngine()) discardEngine();
}

bool Bench::isServed() const {
  const auto set = SemaphoreSet::find(names_.requests, wire::LOCK_PROJECT);
  return set && set->value(wire::CREATOR) >= wire::CREATOR_LIVES;
}

bool Bench::prepare(std::string* why) {
  if (!hasOwnEngine()) {
    if (isServed()) return true;
    *why = "no living engine serves this prefix";
    return false;
  }
  const bool fit = engine_ != nullptr && !discarded_ && engine_->running() && !isCrowded();
  if (!fit) {
    discardEngine();
    launch();
  }
  if (engine_->running()) return true;
  *why = not_serving_;
  return false;
}

/// Requesters of earlier clauses keep their head records: some must be left for the next one.
bool Bench::isCrowded() {
  return not_serving_.empty() && replies().headsInUse() > replies().capacity() / 2;
}

/// With its objects, so that the next engine starts on clean ground.
void Bench::discardEngine() {
  if (engine_ == nullptr) return;
  engine_.reset();
  // It may have deleted the name files and nothing else.
  if (channel_ != nullptr) removeObjects(*channel_);
  channel_.reset();
  removeLeftovers(names_);
  discarded_ = false;
}

void Bench::launch() {
  engine_ = std::make_unique<EngineProcess>(settings_.engine, settings_.prefix, settings_.verbose);
  (void)comesTrue(patience(), [this] { return waitedEnough(); });
}

/// Whether the engine serves, or will never do so.
bool Bench::waitedEnough() {
  if (!engine_->running()) {
    not_serving_ = "the engine ended instead of serving: start it by hand, or use --verbose";
    return true;
  }
  const auto channel = Channel::open(names_, patience(), &not_serving_);
  if (!channel) return false;
  const bool serves = channel->requests.isReady() && channel->replies.state() == wire::RUNNING;
  not_serving_ = serves ? "" : "the engine does not become ready";
  return serves;
}

void Bench::requireService() {
  if (!not_serving_.empty()) throw Unchecked(not_serving_);
  const Requester requester;
  (void)callOrSkip(makePing(requester.identity()));
}

Channel& Bench::channel() {
  if (channel_ == nullptr) {
    std::string why;
    auto opened = Channel::open(names_, patience(), &why);
    if (!opened) throw Unchecked(why);
    channel_ = std::make_unique<Channel>(std::move(*opened));
  }
  return *channel_;
}

void Bench::kill() {
  engine_->signal(SIGKILL);
  if (!engine_->ends(patience())) throw Unchecked("the engine cannot be killed");
}

void Bench::startAgain() {
  // A segment may be used again: what is ready in there must come from the new engine.
  requests().memory.put32(wire::RING_READY, 0);
  channel_.reset();
  launch();
  if (!not_serving_.empty()) throw Broken("after the death of the last one, " + not_serving_);
}

std::unique_ptr<EngineProcess> Bench::startSecond() const {
  return std::make_unique<EngineProcess>(settings_.engine, settings_.prefix, settings_.verbose);
}

std::unique_ptr<TracedEngine> Bench::startTraced() const {
  return std::make_unique<TracedEngine>(settings_.engine, settings_.prefix, settings_.verbose);
}

// ---- calls --------------------------------------------------------------------------------------

std::optional<wire::Reply> Bench::call(const wire::Request& request) {
  post(request);
  const Identity who = {static_cast<uint32_t>(request.word(wire::SENDER_PROCESS)),
                        static_cast<uint32_t>(request.word(wire::SENDER_THREAD))};
  const ReplyQueue::Taken taken = take(who);
  if (taken.end == ReplyQueue::End::no_head) throw Unchecked("no head record is to be had");
  if (taken.end != ReplyQueue::End::reply) return {};
  return taken.reply;
}

wire::Reply Bench::callOrSkip(const wire::Request& request) {
  const auto reply = call(request);
  if (!reply) {
    throw Unchecked("a request of type " + std::to_string(request.word(wire::TYPE)) +
                    " is not answered");
  }
  return *reply;
}

unsigned Bench::headFor(Identity who) {
  const ReplyQueue::Guard guard(replies());
  const auto head = replies().headFor(who);
  if (!head) throw Unchecked("no head record is to be had");
  return *head;
}

void Bench::needService(const std::string& otherwise) {
  const Requester requester;
  std::optional<wire::Reply> reply;
  try {
    reply = call(makePing(requester.identity()));
  } catch (const Unchecked& reason) {
    throw Broken(otherwise + ": " + reason.what());
  }
  need(reply.has_value(), otherwise);
}

void Bench::settle() {
  const auto end = Clock::now() + SETTLING;
  (void)comesTrue(SETTLING, [end] { return Clock::now() >= end; });
}

}  // namespace armcontract
