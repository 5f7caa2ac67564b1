#pragma once

#include <cstdint>

namespace armengine {

/// A second in nanoseconds, in which the engine counts all times.
constexpr uint64_t SECOND = 1'000'000'000;

}  // namespace armengine
