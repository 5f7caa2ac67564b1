#include "armrun/CorrelatorText.h"

#include <cstring>

#include "text/Hex.h"

namespace armrun {

std::string toHex(const arm_correlator_t& correlator) {
  return armtext::hexText(correlator.bytes, sizeof correlator.bytes);
}

bool fromHex(const std::string& text, arm_correlator_t* correlator) {
  const auto bytes = armtext::bytesOfHex(text);
  if (!bytes || bytes->size() != sizeof correlator->bytes) return false;
  std::memcpy(correlator->bytes, bytes->data(), bytes->size());
  return true;
}

}  // namespace armrun
