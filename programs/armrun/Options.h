#pragma once

#include <chrono>
#include <string>

namespace armrun {

/// Exit codes of armrun itself; every other one is the command's.
inline constexpr int FAILED = 125;
inline constexpr int CANNOT_EXECUTE = 126;
inline constexpr int NOT_FOUND = 127;

/// The command line.
struct Options {
  std::string application;
  std::string transaction;
  std::string detail;
  std::chrono::milliseconds wait = std::chrono::seconds(2);  ///< patience with the engine
  bool verbose = false;
  bool help = false;
  bool version = false;
  char** command = nullptr;  ///< the command with its arguments, ends in a null pointer
  std::string error;         ///< one sentence; empty when the command line is good
};

/// Reads the arguments; arguments[0] is the program's name.
Options parseOptions(int count, char** arguments);

/// What --help prints.
const char* helpText();

}  // namespace armrun
