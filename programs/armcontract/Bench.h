#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "armcontract/EngineProcess.h"
#include "armcontract/Queues.h"
#include "armcontract/TracedEngine.h"

namespace armcontract {

/// More threads than this are not asked of the machine.
inline constexpr unsigned MOST_REQUESTERS = 1024;

/// What the program was asked to do.
struct Settings {
  std::optional<std::string> prefix;
  std::vector<std::string> engine;  ///< the command of an engine of its own; empty: a running one
  Duration patience{5000};          ///< how long an answer may take
  bool verbose = false;
};

/// A requester: the identifier of a thread that lives as long as the object.  Its calls are made by
/// whoever uses the object.
class Requester {
 public:
  Requester();
  ~Requester();
  Requester(const Requester&) = delete;
  Requester& operator=(const Requester&) = delete;

  Identity identity() const { return identity_; }

 private:
  void park();

  Identity identity_ = {0, 0};
  bool known_ = false;
  bool over_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  pthread_t thread_ = {};
};

using Requesters = std::vector<std::unique_ptr<Requester>>;
Requesters makeRequesters(unsigned count);

/// A record of a type from a requester, all else zero.
wire::Request makeRequest(int32_t type, Identity from);
/// A request that any engine answers with some status and that changes nothing.
wire::Request makePing(Identity from);

/// What the clauses work with: the engine, its queues, and the calls of a program.
class Bench {
 public:
  explicit Bench(Settings settings);
  /// Ends an engine of its own and removes what that has left.
  ~Bench();
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  const Settings& settings() const { return settings_; }
  const Names& names() const { return names_; }
  Duration patience() const { return settings_.patience; }
  bool hasOwnEngine() const { return !settings_.engine.empty(); }
  /// Whether an engine serves the prefix.
  bool isServed() const;

  /// Makes the engine of its own run, and waits until it serves.  False, with a sentence in why,
  /// when it does not even run.
  bool prepare(std::string* why);
  /// Throws Unchecked unless the engine serves and answers.
  void requireService();
  /// Lets no later clause have the engine that runs now.  One that does not serve is kept: another
  /// one would not either.
  void discard() { discarded_ = not_serving_.empty(); }

  EngineProcess& engine() { return *engine_; }
  /// The queues, opened once for an engine.  Throws Unchecked when they cannot be opened.
  Channel& channel();
  RequestQueue& requests() { return channel().requests; }
  ReplyQueue& replies() { return channel().replies; }

  /// Kills the engine of its own, without a trace of it being removed.
  void kill();
  /// Starts another one beside what the last one has left; throws Broken when it does not serve.
  void startAgain();
  /// Starts another one, to be looked at while it starts.
  std::unique_ptr<TracedEngine> startTraced() const;
  /// Starts a second engine beside the one that runs.
  std::unique_ptr<EngineProcess> startSecond() const;

  void post(const wire::Request& request) { requests().put({request}); }
  ReplyQueue::Taken take(Identity who) { return replies().take(who, patience()); }
  /// Posts and waits; nothing when no answer comes.
  std::optional<wire::Reply> call(const wire::Request& request);
  /// The same for a request that another clause is about: throws Unchecked without an answer.
  wire::Reply callOrSkip(const wire::Request& request);
  /// The head record of a requester, claimed if need be; throws Unchecked when none is to be had.
  unsigned headFor(Identity who);
  /// Throws Broken with this sentence unless a fresh requester is answered.
  void needService(const std::string& otherwise);
  /// Gives the engine time to do what it should not do.
  void settle();

 private:
  bool isCrowded();
  bool waitedEnough();
  void launch();
  void discardEngine();

  Settings settings_;
  Names names_;
  std::unique_ptr<EngineProcess> engine_;
  std::unique_ptr<Channel> channel_;
  bool discarded_ = false;
  std::string not_serving_;  ///< why the engine of its own does not serve; empty when it does
};

}  // namespace armcontract
