#pragma once

#include <string>

#include "core/EngineQueues.h"
#include "registry/Registry.h"

namespace armengine {

/// Where the engine tells what it knows; empty texts: nowhere.
struct OutputOptions {
  std::string listen_address;  ///< of the HTTP server, a numeric address or a name
  int listen_port = 0;         ///< 0: any free one
  std::string events;          ///< file of event lines, "-" is standard output
  std::string otlp;            ///< base URL of an OpenTelemetry receiver
  std::string otlp_file;       ///< file of the requests that such a receiver would get
  bool report = false;         ///< a table on standard output at the end
};

/// The command line of the program.
struct CommandLine {
  EngineOptions queues;
  RegistrySettings registry;
  OutputOptions outputs;
  bool help = false;
  std::string replay;  ///< file of events to read instead of serving; empty: serve
  std::string error;   ///< one sentence; empty when the command line is good
};

/// Reads the arguments, without the program's name.
CommandLine parseCommandLine(int count, char* const* arguments);

/// What --help prints.
std::string helpText();

}  // namespace armengine
