#include "program/Options.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "arguments/ArgumentParser.h"
#include "text/HostPort.h"

namespace armengine {

namespace {

using armarguments::ArgumentParser;
using armarguments::numberInto;
using armarguments::someTextInto;
using armarguments::wholeNumberInto;

constexpr uint64_t MOST_INSTANCES = 10'000'000;
constexpr uint64_t LONGEST_IDLE = 10ULL * 366 * 86400;

std::string readPrefix(const std::string& text, EngineOptions* queues) {
  queues->prefix = text;
  return isPrefix(text) ? ""
                        : "needs a name of at most " + std::to_string(LONGEST_PREFIX) +
                              " characters without '/'";
}

std::string readListen(const std::string& text, OutputOptions* outputs) {
  const auto address = armtext::parseHostPort(text);
  if (!address) {
    return "needs ADDRESS:PORT or PORT, with a port from 0 to 65535, not '" + text + "'";
  }
  outputs->listen_address = address->host;
  outputs->listen_port = address->port;
  return "";
}

/// Seconds, ascending, separated by commas.
std::string readBuckets(const std::string& text, Buckets* buckets) {
  constexpr double SHORTEST = 1e-6;
  constexpr double LONGEST = 1e6;
  constexpr std::size_t MOST = 100;
  buckets->clear();
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    double seconds = 0;
    const bool good =
        numberInto(&seconds, SHORTEST, LONGEST)(text.substr(begin, end - begin)).empty() &&
        buckets->size() < MOST;
    const auto bound = good ? static_cast<uint64_t>(std::llround(seconds * 1e9)) : 0;
    if (!good || (!buckets->empty() && bound <= buckets->back())) {
      return "needs up to 100 ascending seconds from 0.000001 to 1000000, as in 0.001,0.1,10, not "
             "'" +
             text + "'";
    }
    buckets->push_back(bound);
    begin = end + 1;
  }
  return "";
}

std::string readUrl(const std::string& text, std::string* url) {
  const bool http = text.rfind("http://", 0) == 0 || text.rfind("https://", 0) == 0;
  if (!http || text.find_first_of(" \t\n") != std::string::npos) {
    return "needs a URL that begins with http:// or https://, not '" + text + "'";
  }
  *url = text;
  return "";
}

std::string defaultOf(uint64_t value) {
  return " (default " + std::to_string(value) + ")";
}

void addQueueOptions(ArgumentParser* parser, EngineOptions* queues) {
  parser->option("--prefix", "NAME",
                 "serve the programs that have ARM_AGENT_PREFIX=NAME in their environment "
                 "(default: the engine's own ARM_AGENT_PREFIX)",
                 [queues](const std::string& text) { return readPrefix(text, queues); });
  parser->option(
      "--requests", "N",
      "room for N requests, 1 to " + std::to_string(UINT16_MAX) + defaultOf(queues->requests),
      wholeNumberInto(&queues->requests, 1, UINT16_MAX));
  parser->option("--requesters", "N",
                 "serve N threads at once, 1 to " + std::to_string(LARGEST_REQUESTERS) +
                     defaultOf(queues->requesters),
                 wholeNumberInto(&queues->requesters, 1, LARGEST_REQUESTERS));
}

void addLimit(ArgumentParser* parser, const std::string& name, const std::string& help,
              std::size_t* limit) {
  parser->option(name, "N", help + defaultOf(*limit), wholeNumberInto(limit, 1, MOST_INSTANCES));
}

void addRegistryOptions(ArgumentParser* parser, RegistrySettings* registry) {
  parser->option(
      "--buckets", "SECONDS,...", "upper bounds of the response-time buckets",
      [registry](const std::string& text) { return readBuckets(text, &registry->buckets); });
  parser->option("--sample", "RATE",
                 "trace this share of the transactions without a parent, 0 to 1 (default 1)",
                 numberInto(&registry->sample, 0, 1));
  parser->repeated("--ignore", "PATTERN",
                   "count the classes whose APPLICATION/CLASS matches, but do not trace them (may "
                   "be repeated)",
                   [registry](const std::string& text) {
                     return someTextInto(&registry->ignore.emplace_back())(text);
                   });
  addLimit(parser, "--max-applications", "applications; the rest is called \"other\"",
           &registry->most_applications);
  addLimit(parser, "--max-classes", "transaction classes; the rest is called \"other\"",
           &registry->most_classes);
  addLimit(parser, "--max-open", "open instances; further ones are not measured",
           &registry->most_open);
  parser->option("--idle", "SECONDS",
                 "forget the figures of a class that was not used for so long, 0: never" +
                     defaultOf(registry->idle_seconds),
                 wholeNumberInto(&registry->idle_seconds, 0, LONGEST_IDLE));
}

void addOutputOptions(ArgumentParser* parser, OutputOptions* outputs) {
  parser->option("--listen", "[ADDRESS:]PORT",
                 "serve /metrics for Prometheus there; the address is 127.0.0.1 when none is given",
                 [outputs](const std::string& text) { return readListen(text, outputs); });
  parser->option("--otlp", "URL",
                 "send traces to the OpenTelemetry receiver there (default: the environment's "
                 "OTEL_EXPORTER_OTLP_ENDPOINT)",
                 [outputs](const std::string& text) { return readUrl(text, &outputs->otlp); });
  parser->option("--otlp-file", "FILE", "write traces to a file, one request a line",
                 someTextInto(&outputs->otlp_file));
  parser->option("--events", "FILE", "write every event as a line of JSON; - is standard output",
                 someTextInto(&outputs->events));
  parser->flag("--report", "print a table of the transaction classes at the end", &outputs->report);
}

/// What a command line is read into.
class Parser : public ArgumentParser {
 public:
  explicit Parser(CommandLine* line)
      : ArgumentParser("armengine", "usage: armengine [OPTION]...\n       armengine replay FILE",
                       "Serves the ARM calls of this machine's programs until SIGINT or SIGTERM.") {
    addQueueOptions(this, &line->queues);
    addRegistryOptions(this, &line->registry);
    addOutputOptions(this, &line->outputs);
    flag("--help", "print this text", &line->help);
    subcommand("replay", "print the table that a file of events gives", &replay_)
        .word("FILE", "what --events has written; - is standard input", &line->replay);
  }

 private:
  bool replay_ = false;
};

}  // namespace

CommandLine parseCommandLine(int count, char* const* arguments) {
  CommandLine line;
  line.error = Parser(&line).parse(count, arguments);
  return line;
}

std::string helpText() {
  CommandLine unused;
  return Parser(&unused).help();
}

}  // namespace armengine
