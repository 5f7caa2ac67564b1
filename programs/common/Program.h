#pragma once

#include <string>

namespace armtools {

/// "NAME VERSION", what a program answers to --version.
std::string versionText(const char* program);

/// Writes "PROGRAM: SENTENCE" to standard error and returns the exit code that was given.
int complain(const char* program, const std::string& sentence, int exit_code);

}  // namespace armtools
