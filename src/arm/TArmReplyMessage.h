#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t ARM_CORRELATOR_FIELD = 168;

/// The reply record, 528 bytes.
///
/// | offset | size | field           | meaning                                                  |
/// |--------|------|-----------------|----------------------------------------------------------|
/// | 0      | 4    | result          | id, handle or status; returned unchanged to the caller   |
/// | 4      | 1    | correlator_flag | non-zero: a correlator follows                           |
/// | 5      | 3    | padding         |                                                          |
/// | 8      | 168  | correlator      | the new transaction's correlator                         |
/// | 176    | 352  | rest            | not read by the library                                  |
struct TArmReplyMessage {
  int32_t result;
  uint8_t correlator_flag;
  uint8_t padding[3];
  uint8_t correlator[ARM_CORRELATOR_FIELD];
  uint8_t rest[352];
};

static_assert(sizeof(TArmReplyMessage) == 528);
static_assert(offsetof(TArmReplyMessage, result) == 0);
static_assert(offsetof(TArmReplyMessage, correlator_flag) == 4);
static_assert(offsetof(TArmReplyMessage, padding) == 5);
static_assert(offsetof(TArmReplyMessage, correlator) == 8);
static_assert(offsetof(TArmReplyMessage, rest) == 176);
