#pragma once

#include <cstdio>
#include <string>

namespace armtest {

/// Prints how often a test has done something. './run verify' puts the lines of both widths
/// together; docs/reliability.md quotes them.
inline void counted(const std::string& what, unsigned long times) {
  std::printf("counted: %s: %lu\n", what.c_str(), times);
  // A forked child that ends with exit must not print it again.
  (void)std::fflush(stdout);
}

}  // namespace armtest
