#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// What a test and its scripted engine exchange: a shared mapping with the requests as they were
// taken, and a socket with commands and answers. The two may have different widths.

namespace armtest {

inline constexpr size_t RECORD_SIZE = 4116;
inline constexpr size_t CORRELATOR_SIZE = 168;
/// Requests that the mapping keeps; later ones are only counted.
inline constexpr unsigned KEPT_RECORDS = 512;

/// File descriptors that the engine program inherits.
inline constexpr int ENGINE_SOCKET = 3;
inline constexpr int ENGINE_MAPPING = 4;

struct EngineLog {
  std::atomic<uint32_t> taken;
  uint8_t records[KEPT_RECORDS][RECORD_SIZE];
};

/// What becomes of a request.
enum class Reaction : int32_t {
  reply,   ///< answered at once with the rule's result
  hold,    ///< answered with the rule's result when the test says release
  drop,    ///< never answered
  derive,  ///< answered with derivedResult of the request's first body word
};

enum class Op : uint32_t {
  add_rule,       ///< type, reaction, result, correlator flag, times, correlator
  forget_rules,   ///< back to the default answers
  release,        ///< sends the answers held; gives how many
  cancel,         ///< process, thread; gives 1 when there was such a requester
  put,            ///< process, thread, result: links a reply that nobody has asked for
  request_state,  ///< state of the request queue
  reply_state,    ///< state of the reply queue
  ready,          ///< the ready word
  version,        ///< the version word
  pause,          ///< takes no more requests
  resume,         ///< takes requests again
  heads_in_use,
  used_items,
  reclaim,  ///< frees the head records of the departed; gives how many
  quit      ///< removes everything and ends
};

struct Command {
  Op op;
  int32_t values[5];
  uint8_t correlator[CORRELATOR_SIZE];
};

struct Answer {
  int32_t value;
  char why[252];
};

static_assert(sizeof(Command) == 192);
static_assert(sizeof(Answer) == 256);
static_assert(sizeof(EngineLog) == 4 + 512 * 4116);

/// The answer of an engine without a rule for a type.
inline constexpr int32_t defaultResult(int32_t type) {
  return 100 + type;
}

/// A positive result that belongs to one id.
inline constexpr int32_t derivedResult(int32_t id) {
  return static_cast<int32_t>((static_cast<uint32_t>(id) ^ 0x2a2a2a2aU) & 0x7fffffffU);
}

}  // namespace armtest
