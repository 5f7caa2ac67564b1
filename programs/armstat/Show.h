#pragma once

#include <string>

#include "armstat/Picture.h"

namespace armstat {

/// A picture for people, several lines.
std::string asText(const Picture& picture);

/// A picture as one JSON object without a newline.
///   pretty  over several lines
std::string asJson(const Picture& picture, bool pretty);

}  // namespace armstat
