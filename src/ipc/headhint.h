#pragma once

#include <cstdint>

/// The number of the head record that the calling thread found last, in whatever queue: a place to
/// look first, never to be trusted.
uint16_t& headHint();
