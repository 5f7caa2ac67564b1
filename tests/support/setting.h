#pragma once

#include <cstdint>
#include <cstdlib>

namespace armtest {

/// The number in an environment variable, such as the rounds that './run verify' asks for; the
/// usual one where there is none above 0.
inline uint32_t settingOr(const char* variable, uint32_t usual) {
  const char* text = getenv(variable);
  const unsigned long number = text != nullptr ? strtoul(text, nullptr, 10) : 0;
  return number > 0 ? static_cast<uint32_t>(number) : usual;
}

}  // namespace armtest
