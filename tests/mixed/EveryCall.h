#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "CallTest.h"

namespace armtest {

inline constexpr size_t MIXED_CALLS = 13;

/// What a program that makes every call has seen: the results and the blocks afterwards.
struct MixedOutcome {
  std::array<int32_t, MIXED_CALLS> results;
  std::array<uint8_t, 256> start_block;
  std::array<uint8_t, 256> report_block;
};

/// Makes every posting call once, in a fixed order and with all fields of the records in use.
MixedOutcome makeEveryMixedCall();

/// The correlator that the engine hands back to every call.
Correlator mixedCorrelator();
/// The engine's answer to a type.
int32_t mixedResult(int32_t type);
/// Tells the engine these answers.
void prepareMixedEngine(ScriptedEngine& engine);

/// Fails unless the results and blocks are those that the engine's answers give.
void expectMixedOutcome(const MixedOutcome& outcome);
/// Fails unless 13 records from a number on are those of makeEveryMixedCall, of that process.
void expectMixedRecords(const ScriptedEngine& engine, uint32_t first, uint32_t process);

}  // namespace armtest
