#pragma once

#include <optional>
#include <string>
#include <vector>

#include "armstat/Memory.h"
#include "armstat/Objects.h"

namespace armstat {

/// What can be said of the engine of a prefix.
enum class EngineState {
  none,      ///< no shared objects
  starting,  ///< the objects are there, but no program uses them yet
  serving,   ///< it lives, and programs use its queues
  stopped,   ///< it lives, but has stopped a queue
  dead,      ///< the process that made the objects is gone
  unknown,   ///< the objects may not be looked at
};

const char* nameOf(EngineState state);

struct Engine {
  EngineState state = EngineState::none;
  pid_t process = 0;  ///< 0 when it is not known
  std::string name;   ///< of its program
};

/// One head record that belongs to a requester.
struct Requester {
  unsigned index = 0;
  TIPCHeadItem record = {};
  Chain pending;                    ///< its replies
  std::optional<unsigned> raised;   ///< value of its semaphore
  std::optional<unsigned> waiters;  ///< threads on its semaphore
  bool process_lives = false;
  std::string process_name;
  std::optional<bool> thread_lives;  ///< none where it cannot be told
};

/// What cannot be in sound queues.
struct Oddity {
  enum class Kind {
    damage,   ///< indexes, lists, counts or sizes that do not fit each other
    version,  ///< another version than the library's
  };
  Kind kind = Kind::damage;
  std::string text;  ///< one sentence
};

/// All that armstat sees of one prefix at one time.
struct Picture {
  std::optional<std::string> prefix;
  Objects objects;
  RequestQueue requests;
  ReplyQueue replies;
  std::vector<Requester> requesters;
  Chain free_items;
  Engine engine;
  std::vector<Oddity> oddities;  ///< none when the copies are torn
};

Picture takePicture(Manner manner);

/// The state of the engine whose creator semaphores have these values, without a look at the
/// queues.
EngineState stateByCreators(const Objects& objects);

const char* nameOf(Copy copy);
/// "idle", "waiting", "by index", "cancelled" or "unknown".
const char* nameOfStatus(uint8_t status);
/// "running", "stopped", "closed" or "unknown".
const char* nameOfQueueState(uint32_t state);

}  // namespace armstat
