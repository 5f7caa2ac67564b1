#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "arm/TArmReplyMessage.h"

namespace armengine {

/// The bytes of a correlator, in network byte order since correlators cross systems:
///
/// | offset | size | field        | meaning                                             |
/// |--------|------|--------------|-----------------------------------------------------|
/// | 0      | 2    | length       | of the whole correlator, this field included: 168   |
/// | 2      | 1    | format       | 193; 128 to 255 are for agents' own formats         |
/// | 3      | 1    | flags        | 0x40: the application asks for a trace              |
/// | 4      | 4    | magic        | "ARMC"                                              |
/// | 8      | 2    | version      | 1                                                   |
/// | 10     | 2    | reserved     | 0                                                   |
/// | 12     | 4    | class        | transaction class id                                |
/// | 16     | 4    | start handle |                                                     |
/// | 20     | 8    | engine       | number of the engine's run, unlike any other's      |
/// | 28     | 140  | reserved     | 0; byte 109 is read by the library, where bit 0x01  |
/// |        |      |              | would make it ignore this transaction's children    |
using CorrelatorBytes = std::array<uint8_t, ARM_CORRELATOR_FIELD>;

/// What this engine puts into a correlator.
struct Correlator {
  uint64_t engine = 0;  ///< the engine that has given it
  int32_t class_id = 0;
  int32_t handle = 0;
  bool trace = false;
};

CorrelatorBytes encodeCorrelator(const Correlator& correlator);

/// Reads a correlator that an application has passed on.  Nothing when it is of another format, cut
/// or damaged: that is no error, its transaction exists but is not known here.
std::optional<Correlator> decodeCorrelator(const CorrelatorBytes& bytes);

}  // namespace armengine
