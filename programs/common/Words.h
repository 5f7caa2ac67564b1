#pragma once

#include <string>

namespace armtools {

/// "1 user", "2 users".
std::string counted(unsigned long number, const std::string& singular);

}  // namespace armtools
