#pragma once

#include <string>
#include <vector>

#include "armcontract/Bench.h"

namespace armcontract {

/// The command line of the program.
struct CommandLine {
  Settings settings;
  std::vector<std::string> clauses;  ///< names of those to check; empty: all
  bool json = false;
  bool list = false;
  bool help = false;
  std::string error;  ///< one sentence; empty when the command line is good
};

/// Reads the arguments, without the program's name.  The prefix is that of the environment unless
/// one is given.
CommandLine parseCommandLine(int count, char* const* arguments);

/// What --help prints.
std::string helpText();

}  // namespace armcontract
