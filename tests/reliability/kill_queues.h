#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace armtest {

/// The records of the request queue, oldest first, copied under its lock. Fails the test when the
/// lock does not come free, or when count, head and tail do not fit together.
std::vector<std::string> requestRecords();

/// Fails the test unless, with every lock free, the ring holds whole records only and every item of
/// the reply queue is in exactly one list, counted right.
void expectSoundQueues();

}  // namespace armtest
