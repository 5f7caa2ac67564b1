#pragma once

#include <cstddef>
#include <cstdint>

namespace armtest {

/// Whether a call may return this on damaged queues: -2, -8, -9, or the word of every reply.
bool isAllowedOnDamage(int32_t result);

/// A caller's block, with a pattern on both sides.
struct Host {
  uint8_t before[64];
  uint8_t block[256];
  uint8_t behind[64];
};

void fillHost(Host& host);
/// The block holds its own bytes, or them and a correlator; the pattern is untouched.
bool hostIsWhole(const Host& host);

/// Makes one of the posting calls, or arm_start with the host's block.
int32_t callNumber(size_t number, Host& host);

}  // namespace armtest
