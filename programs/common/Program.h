#pragma once

#include <string>

namespace armtools {

/// "NAME VERSION", what a program answers to --version.
std::string versionText(const char* program);

/// Writes "PROGRAM: SENTENCE" to standard error and returns the exit code that was given.
int complain(const char* program, const std::string& sentence, int exit_code);

/// Runs what main is made of.  An exception that comes out of it, as for want of memory, ends the
/// program with a sentence and the exit code that was given.
int guarded(const char* program, int (*body)(int, char**), int count, char** arguments,
            int exit_code);

}  // namespace armtools
