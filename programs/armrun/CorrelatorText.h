#pragma once

#include <string>

#include "arm.h"

namespace armrun {

/// A correlator as lower-case hexadecimal digits.
std::string toHex(const arm_correlator_t& correlator);

/// Reads what toHex has written, capital digits too.  False when the text is anything else; the
/// correlator then holds nothing of use.
bool fromHex(const std::string& text, arm_correlator_t* correlator);

}  // namespace armrun
