#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ScriptProtocol.h"
#include "bytes.h"

namespace armtest {

using Correlator = std::array<uint8_t, CORRELATOR_SIZE>;

/// How a scripted engine is started.
struct EngineSetup {
  int requests = 64;    ///< slots of the request queue
  int requesters = 64;  ///< head records of the reply queue
  bool ready = true;    ///< the ready word
  bool prefixed = false;
  std::string prefix;                     ///< value of ARM_AGENT_PREFIX, when prefixed
  std::string build_dir = ARM_BUILD_DIR;  ///< build tree of the engine program
};

/// An engine in a process of its own that does what the test says, and records every request that
/// it takes. Without a rule it answers a request of type t with the result 100 + t and no
/// correlator. Every wait is bounded and fails the test. May be used from one thread at a time.
class ScriptedEngine {
 public:
  ScriptedEngine();
  /// Ends the engine and removes its objects, also those of one that was killed.
  ~ScriptedEngine();
  ScriptedEngine(const ScriptedEngine&) = delete;
  ScriptedEngine& operator=(const ScriptedEngine&) = delete;

  /// Starts the engine; false, and a failed test, when it cannot start.
  bool start(const EngineSetup& setup = {});
  /// Ends it in good order: everybody is woken and everything removed.
  void quit();
  /// Kills it: it leaves everything behind.
  void kill();
  bool running() const { return process_ > 0; }
  pid_t process() const { return process_; }

  // Rules: the first one added whose type fits, and that has not been used up, decides. Type 0 fits
  // all; times -1 never ends.
  void reply(int32_t type, int32_t result, int32_t times = -1);
  void replyWithCorrelator(int32_t type, int32_t result, int32_t flag,
                           const Correlator& correlator);
  void hold(int32_t type = 0, int32_t times = -1, int32_t result = 4711);
  void drop(int32_t type = 0, int32_t times = -1);
  void derive(int32_t type = 0);
  void forget() { (void)command(Op::forget_rules); }

  /// Sends the answers held; returns how many.
  int release() { return command(Op::release); }
  bool cancel(int32_t process, int32_t thread) {
    return command(Op::cancel, {process, thread}) == 1;
  }
  void put(int32_t process, int32_t thread, int32_t result) {
    expectZero(command(Op::put, {process, thread, result}));
  }
  void setRequestState(int32_t state) { expectZero(command(Op::request_state, {state})); }
  void setReplyState(int32_t state) { expectZero(command(Op::reply_state, {state})); }
  void setReady(bool ready) { expectZero(command(Op::ready, {ready ? 1 : 0})); }
  void setVersion(int32_t version) { expectZero(command(Op::version, {version})); }
  void pause() { expectZero(command(Op::pause)); }
  void resume() { expectZero(command(Op::resume)); }
  /// Frees the head records of processes that have ended; returns how many.
  int reclaim() { return command(Op::reclaim); }
  int headsInUse() { return command(Op::heads_in_use); }
  int usedItems() { return command(Op::used_items); }

  /// Requests taken since the object was made.
  uint32_t taken() const { return log_->taken.load(); }
  /// The 4116 bytes of a request, by number from 0.
  Bytes record(uint32_t number) const;
  /// The request taken last.
  Bytes last() const { return record(taken() - 1); }

  // Bounded waits; false, and a failed test, when it does not come true.
  bool waitTaken(uint32_t count) const;
  /// Until so many threads, of all processes, sleep for their reply.
  bool waitSleepers(int count) const;
  int sleepers() const;

 private:
  static void expectZero(int32_t value);
  int32_t command(Op op, std::array<int32_t, 5> values = {}, const uint8_t* correlator = nullptr);
  bool receive(Answer& answer);
  void launch(const EngineSetup& setup, int socket);
  void reap();

  /// As it was when the object was made: threads may change the real one meanwhile.
  std::vector<std::string> environment_;
  EngineLog* log_;
  int mapping_;
  int socket_ = -1;
  pid_t process_ = -1;
  bool leftovers_ = false;
  EngineSetup setup_;
};

}  // namespace armtest
