#pragma once

#include <string>

#include "core/EngineQueues.h"

namespace armengine {

/// The command line of the program.
struct CommandLine {
  EngineOptions queues;
  bool report = false;
  bool help = false;
  std::string error;  ///< one sentence; empty when the command line is good
};

/// Reads the arguments, without the program's name.
CommandLine parseCommandLine(int count, char* const* arguments);

/// What --help prints.
std::string helpText();

}  // namespace armengine
