#pragma once

#include <string>

namespace armtest {

/// Fixes everything that a record of the trace carries: 2024-03-07 09:05:02.045917 UTC on "host" in
/// process 1234, thread 1024.
void fixStamp();
/// The XML record of a text, with the fixed stamp.
std::string xmlRecord(const std::string& text);

}  // namespace armtest
