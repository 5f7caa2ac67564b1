#include "program/Options.h"

#include <charconv>
#include <cstdint>
#include <string_view>
#include <vector>

namespace armengine {

namespace {

bool parseNumber(std::string_view text, unsigned largest, uint16_t* number) {
  unsigned value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < 1 || value > largest) return false;
  *number = static_cast<uint16_t>(value);
  return true;
}

std::string rangeError(std::string_view option, unsigned largest, std::string_view value) {
  return std::string(option) + " needs a number from 1 to " + std::to_string(largest) + ", not '" +
         std::string(value) + "'";
}

/// Applies an option that has a value; false when there is none of that name.
bool applyValue(std::string_view option, std::string_view value, CommandLine* line) {
  if (option == "--prefix") {
    line->queues.prefix = std::string(value);
    if (value.size() > LONGEST_PREFIX || value.find('/') != std::string_view::npos) {
      line->error = "--prefix needs a name of at most " + std::to_string(LONGEST_PREFIX) +
                    " characters without '/'";
    }
  } else if (option == "--requests") {
    if (!parseNumber(value, UINT16_MAX, &line->queues.requests)) {
      line->error = rangeError(option, UINT16_MAX, value);
    }
  } else if (option == "--requesters") {
    if (!parseNumber(value, LARGEST_REQUESTERS, &line->queues.requesters)) {
      line->error = rangeError(option, LARGEST_REQUESTERS, value);
    }
  } else {
    return false;
  }
  return true;
}

bool takesValue(std::string_view option) {
  CommandLine unused;
  return applyValue(option, "", &unused);
}

bool applyFlag(std::string_view option, CommandLine* line) {
  if (option == "--report") {
    line->report = true;
  } else if (option == "--help") {
    line->help = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

CommandLine parseCommandLine(int count, char* const* arguments) {
  CommandLine line;
  for (int i = 0; i < count && line.error.empty(); ++i) {
    const std::string_view argument = arguments[i];
    const std::size_t equals = argument.find('=');
    const std::string_view option = argument.substr(0, equals);
    if (equals == std::string_view::npos && applyFlag(argument, &line)) continue;
    if (!takesValue(option)) {
      line.error = "unknown argument '" + std::string(argument) + "': see armengine --help";
    } else if (equals != std::string_view::npos) {
      (void)applyValue(option, argument.substr(equals + 1), &line);
    } else if (i + 1 < count) {
      (void)applyValue(option, arguments[++i], &line);
    } else {
      line.error = std::string(option) + " needs a value: see armengine --help";
    }
  }
  return line;
}

std::string helpText() {
  const EngineOptions standard;
  return "usage: armengine [OPTION]...\n"
         "Serves the ARM calls of this machine's programs until SIGINT or SIGTERM.\n"
         "  --prefix NAME     serve the programs that have ARM_AGENT_PREFIX=NAME in their\n"
         "                    environment (default: the engine's own ARM_AGENT_PREFIX)\n"
         "  --requests N      room for N requests, 1 to " +
         std::to_string(UINT16_MAX) + " (default " + std::to_string(standard.requests) +
         ")\n"
         "  --requesters N    serve N threads at once, 1 to " +
         std::to_string(LARGEST_REQUESTERS) + " (default " + std::to_string(standard.requesters) +
         ")\n"
         "  --report          print a table of the transaction classes at the end\n"
         "  --help            print this text\n";
}

}  // namespace armengine
