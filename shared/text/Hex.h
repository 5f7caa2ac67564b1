#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace armtext {

/// The text form of bytes, for environment variables and files: lower-case hexadecimal.
std::string hexText(const uint8_t* bytes, std::size_t count);
/// The same at the end of a text.
void appendHex(std::string* text, const uint8_t* bytes, std::size_t count);

/// Bytes of a text of hexadecimal digits of either case; nothing when it is not one.
std::optional<std::string> bytesOfHex(std::string_view text);

}  // namespace armtext
