#include "common/Program.h"

#include <cstdio>

namespace armtools {

std::string versionText(const char* program) {
  return std::string(program) + " " ARM_VERSION;
}

int complain(const char* program, const std::string& sentence, int exit_code) {
  (void)std::fprintf(stderr, "%s: %s\n", program, sentence.c_str());
  return exit_code;
}

}  // namespace armtools
