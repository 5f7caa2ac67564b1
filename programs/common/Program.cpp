#include "common/Program.h"

#include <cstdio>
#include <exception>

namespace armtools {

std::string versionText(const char* program) {
  return std::string(program) + " " ARM_VERSION;
}

int complain(const char* program, const std::string& sentence, int exit_code) {
  (void)std::fprintf(stderr, "%s: %s\n", program, sentence.c_str());
  return exit_code;
}

int guarded(const char* program, int (*body)(int, char**), int count, char** arguments,
            int exit_code) {
  try {
    return body(count, arguments);
  } catch (const std::exception& error) {
    return complain(program, error.what(), exit_code);
  }
}

}  // namespace armtools
