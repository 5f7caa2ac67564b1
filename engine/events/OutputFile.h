#pragma once

#include <string>

namespace armengine {

/// Opens a file for writing at its end, making it when there is none; -1, with errno, when that
/// fails.
int openForAppending(const std::string& path);

/// Writes a whole text; false when that fails.
bool writeAll(int file, const std::string& text);

}  // namespace armengine
