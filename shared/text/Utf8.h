#pragma once

#include <string>
#include <string_view>

namespace armtext {

/// Length of the well-formed UTF-8 character at the beginning of a text, 0 when there is none.
std::size_t characterLength(std::string_view text);

/// The text with U+FFFD for each byte that belongs to no character: every output is UTF-8, whatever
/// a program calls its transactions.
std::string validUtf8(std::string_view text);

}  // namespace armtext
