#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "arm/TArmReplyMessage.h"

namespace armengine {

/// The bytes of a correlator, in network byte order since correlators cross systems:
///
/// | offset | size | field        | meaning                                                  |
/// |--------|------|--------------|----------------------------------------------------------|
/// | 0      | 2    | length       | of the whole correlator, this field included: 168        |
/// | 2      | 1    | format       | 193; 128 to 255 are for agents' own formats              |
/// | 3      | 1    | flags        | 0x80: this engine traces it; 0x40: the application asked |
/// | 4      | 4    | magic        | "ARMC"                                                   |
/// | 8      | 2    | version      | 2                                                        |
/// | 10     | 2    | reserved     | 0                                                        |
/// | 12     | 4    | class        | transaction class id                                     |
/// | 16     | 4    | start handle |                                                          |
/// | 20     | 8    | engine       | number of the engine's run, unlike any other's           |
/// | 28     | 16   | trace        | trace id                                                 |
/// | 44     | 8    | span         | span id of the transaction                               |
/// | 52     | 57   | reserved     | 0                                                        |
/// | 109    | 1    | ignore       | 1 when the transaction is not traced: the library then   |
/// |        |      |              | ignores its children without asking; else 0              |
/// | 110    | 54   | reserved     | 0                                                        |
/// | 164    | 4    | check        | CRC-32 of bytes 0 to 163                                 |
using CorrelatorBytes = std::array<uint8_t, ARM_CORRELATOR_FIELD>;

using TraceId = std::array<uint8_t, 16>;
using SpanId = std::array<uint8_t, 8>;

/// What this engine puts into a correlator.
struct Correlator {
  uint64_t engine = 0;  ///< the engine that has given it
  int32_t class_id = 0;
  int32_t handle = 0;
  TraceId trace_id = {};
  SpanId span_id = {};
  bool traced = true;  ///< whether the transaction, and thus its children, are traced
  bool trace = false;  ///< whether the application has asked for a trace
};

CorrelatorBytes encodeCorrelator(const Correlator& correlator);

/// Reads a correlator that an application has passed on.  Nothing when it is of another format, cut
/// or damaged: that is no error, its transaction exists but is not known here.
std::optional<Correlator> decodeCorrelator(const CorrelatorBytes& bytes);

}  // namespace armengine
