#include "hostile_calls.h"

#include <cstring>

#include "CallTest.h"
#include "hostile_queues.h"

namespace armtest {

namespace {

bool all(const uint8_t* bytes, size_t count, uint8_t value) {
  for (size_t i = 0; i < count; ++i) {
    if (bytes[i] != value) return false;
  }
  return true;
}

}  // namespace

bool isAllowedOnDamage(int32_t result) {
  return result == -2 || result == -8 || result == -9 || result == MARKED_RESULT;
}

void fillHost(Host& host) {
  std::memset(host.before, 0xA5, sizeof host.before);
  const Bytes block = makeBlock(sizeof host.block, 1, 0x40);
  std::memcpy(host.block, block.data(), block.size());
  std::memset(host.behind, 0xA5, sizeof host.behind);
}

bool hostIsWhole(const Host& host) {
  if (!all(host.before, sizeof host.before, 0xA5)) return false;
  if (!all(host.behind, sizeof host.behind, 0xA5)) return false;
  Bytes block = makeBlock(sizeof host.block, 1, 0x40);
  if (std::memcmp(host.block, block.data(), block.size()) == 0) return true;
  block[4] |= 0x20;
  // The correlator is the reply's, and its bytes are anybody's.
  std::memcpy(block.data() + 88, host.block + 88, 168);
  return std::memcmp(host.block, block.data(), block.size()) == 0;
}

int32_t callNumber(size_t number, Host& host) {
  const auto& calls = postingCalls();
  const size_t kind = number % (calls.size() + 1);
  if (kind < calls.size()) return calls[kind].call();
  return arm_start(5, 0, host.block, sizeof host.block);
}

}  // namespace armtest
