#include "arm/arm_user_data1.h"

#include <cstring>

namespace {

constexpr std::size_t FLAGS_OFFSET = 4;
constexpr std::size_t CORRELATOR_OFFSET = 88;
constexpr std::size_t IGNORE_OFFSET = CORRELATOR_OFFSET + 109;
constexpr uint8_t IGNORE_BIT = 0x01;

uint8_t* bytesOf(void* block) {
  return static_cast<uint8_t*>(block);
}
const uint8_t* bytesOf(const void* block) {
  return static_cast<const uint8_t*>(block);
}

}  // namespace

bool blockHasFormat(const void* block, int32_t format) {
  if (block == nullptr) return false;
  int32_t word = 0;
  std::memcpy(&word, block, sizeof word);
  return word == format;
}

bool CorrelatorRequested(const arm_user_data1_t* block) {
  return block != nullptr && (bytesOf(block)[FLAGS_OFFSET] & ARM_CorrReq_f) != 0;
}

bool parentIsIgnored(const void* block) {
  return block != nullptr && (bytesOf(block)[FLAGS_OFFSET] & ARM_CorrPar_f) != 0 &&
         (bytesOf(block)[IGNORE_OFFSET] & IGNORE_BIT) != 0;
}

void markIgnoredBlock(void* block) {
  uint8_t& flags = bytesOf(block)[FLAGS_OFFSET];
  // Deliberate (ignored-parent): without a request the bit is inverted, not cleared.  Callers see
  // it flip.
  flags = static_cast<uint8_t>((flags & ARM_CorrReq_f) != 0 ? flags | ARM_CorrGen_f
                                                            : flags ^ ARM_CorrGen_f);
}

void returnCorrelator(void* block, const TArmReplyMessage& reply) {
  if (!CorrelatorRequested(static_cast<const arm_user_data1_t*>(block))) return;
  if (reply.correlator_flag == 0) return;
  bytesOf(block)[FLAGS_OFFSET] |= ARM_CorrGen_f;
  std::memcpy(bytesOf(block) + CORRELATOR_OFFSET, reply.correlator, sizeof reply.correlator);
}
