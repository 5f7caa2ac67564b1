#include "program/Options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include "text/HostPort.h"

namespace armengine {

namespace {

constexpr uint64_t MOST_INSTANCES = 10'000'000;
constexpr uint64_t LONGEST_IDLE = 10ULL * 366 * 86400;

/// A value that cannot be; its text is the sentence that the user sees.
class BadValue : public CLI::ParseError {
 public:
  explicit BadValue(const std::string& sentence) : CLI::ParseError("BadValue", sentence, 2) {}
};

uint64_t wholeNumber(const std::string& option, const std::string& text, uint64_t smallest,
                     uint64_t largest) {
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < smallest || value > largest) {
    throw BadValue(option + " needs a number from " + std::to_string(smallest) + " to " +
                   std::to_string(largest) + ", not '" + text + "'");
  }
  return value;
}

/// A number like 0.25, without a sign.
bool isReal(const std::string& text, double* value) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *value);
  return error == std::errc() && stop == end && std::isfinite(*value) && text[0] != '-';
}

std::string prefixOf(const std::string& text) {
  if (!isPrefix(text)) {
    throw BadValue("--prefix needs a name of at most " + std::to_string(LONGEST_PREFIX) +
                   " characters without '/'");
  }
  return text;
}

void readListen(const std::string& text, OutputOptions* outputs) {
  const auto address = armtext::parseHostPort(text);
  if (!address) {
    throw BadValue("--listen needs ADDRESS:PORT or PORT, with a port from 0 to 65535, not '" +
                   text + "'");
  }
  outputs->listen_address = address->host;
  outputs->listen_port = address->port;
}

double sampleOf(const std::string& text) {
  double rate = 0;
  if (text.empty() || !isReal(text, &rate) || rate > 1) {
    throw BadValue("--sample needs a number from 0 to 1, not '" + text + "'");
  }
  return rate;
}

/// Seconds, ascending, separated by commas.
Buckets bucketsOf(const std::string& text) {
  constexpr double LONGEST = 1e6;
  constexpr std::size_t MOST = 100;
  Buckets buckets;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::string part = text.substr(begin, end - begin);
    double seconds = 0;
    const bool good = !part.empty() && isReal(part, &seconds) && seconds >= 1e-6 &&
                      seconds <= LONGEST && buckets.size() < MOST;
    const auto bound = good ? static_cast<uint64_t>(std::llround(seconds * 1e9)) : 0;
    if (!good || (!buckets.empty() && bound <= buckets.back())) {
      throw BadValue(
          "--buckets needs up to 100 ascending seconds from 0.000001 to 1000000, as in "
          "0.001,0.1,10, not '" +
          text + "'");
    }
    buckets.push_back(bound);
    begin = end + 1;
  }
  return buckets;
}

std::string urlOf(const std::string& text) {
  const bool http = text.rfind("http://", 0) == 0 || text.rfind("https://", 0) == 0;
  if (!http || text.find_first_of(" \t\n") != std::string::npos) {
    throw BadValue("--otlp needs a URL that begins with http:// or https://, not '" + text + "'");
  }
  return text;
}

std::string someText(const std::string& option, const std::string& text) {
  if (text.empty()) throw BadValue(option + " needs a value that is not empty");
  return text;
}

using Apply = std::function<void(const std::string&)>;

void addOption(CLI::App* app, const std::string& name, const std::string& value,
               const std::string& help, const Apply& apply) {
  app->add_option_function<std::string>(name, apply, help)->type_name(value)->expected(1);
}

void addFlag(CLI::App* app, const std::string& name, bool* flag, const std::string& help) {
  app->add_flag(name, *flag, help)->disable_flag_override();
}

std::string defaultOf(uint64_t value) {
  return " (default " + std::to_string(value) + ")";
}

void addQueueOptions(CLI::App* app, EngineOptions* queues) {
  addOption(app, "--prefix", "NAME",
            "serve the programs that have ARM_AGENT_PREFIX=NAME in their environment (default: the "
            "engine's own ARM_AGENT_PREFIX)",
            [queues](const std::string& text) { queues->prefix = prefixOf(text); });
  addOption(app, "--requests", "N",
            "room for N requests, 1 to " + std::to_string(UINT16_MAX) + defaultOf(queues->requests),
            [queues](const std::string& text) {
              queues->requests =
                  static_cast<uint16_t>(wholeNumber("--requests", text, 1, UINT16_MAX));
            });
  addOption(app, "--requesters", "N",
            "serve N threads at once, 1 to " + std::to_string(LARGEST_REQUESTERS) +
                defaultOf(queues->requesters),
            [queues](const std::string& text) {
              queues->requesters =
                  static_cast<uint16_t>(wholeNumber("--requesters", text, 1, LARGEST_REQUESTERS));
            });
}

void addLimit(CLI::App* app, const std::string& name, const std::string& help, std::size_t* limit) {
  addOption(app, name, "N", help + defaultOf(*limit), [name, limit](const std::string& text) {
    *limit = static_cast<std::size_t>(wholeNumber(name, text, 1, MOST_INSTANCES));
  });
}

void addRegistryOptions(CLI::App* app, RegistrySettings* registry) {
  addOption(app, "--buckets", "SECONDS,...", "upper bounds of the response-time buckets",
            [registry](const std::string& text) { registry->buckets = bucketsOf(text); });
  addOption(app, "--sample", "RATE",
            "trace this share of the transactions without a parent, 0 to 1 (default 1)",
            [registry](const std::string& text) { registry->sample = sampleOf(text); });
  app->add_option_function<std::vector<std::string>>(
         "--ignore",
         [registry](const std::vector<std::string>& patterns) {
           for (const std::string& text : patterns) {
             registry->ignore.push_back(someText("--ignore", text));
           }
         },
         "count the classes whose APPLICATION/CLASS matches, but do not trace them (may be "
         "repeated)")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  addLimit(app, "--max-applications", "applications; the rest is called \"other\"",
           &registry->most_applications);
  addLimit(app, "--max-classes", "transaction classes; the rest is called \"other\"",
           &registry->most_classes);
  addLimit(app, "--max-open", "open instances; further ones are not measured",
           &registry->most_open);
  addOption(app, "--idle", "SECONDS",
            "forget the figures of a class that was not used for so long, 0: never" +
                defaultOf(registry->idle_seconds),
            [registry](const std::string& text) {
              registry->idle_seconds = wholeNumber("--idle", text, 0, LONGEST_IDLE);
            });
}

void addOutputOptions(CLI::App* app, OutputOptions* outputs) {
  addOption(app, "--listen", "[ADDRESS:]PORT",
            "serve /metrics for Prometheus there; the address is 127.0.0.1 when none is given",
            [outputs](const std::string& text) { readListen(text, outputs); });
  addOption(app, "--otlp", "URL",
            "send traces to the OpenTelemetry receiver there (default: the environment's "
            "OTEL_EXPORTER_OTLP_ENDPOINT)",
            [outputs](const std::string& text) { outputs->otlp = urlOf(text); });
  addOption(
      app, "--otlp-file", "FILE", "write traces to a file, one request a line",
      [outputs](const std::string& text) { outputs->otlp_file = someText("--otlp-file", text); });
  addOption(app, "--events", "FILE", "write every event as a line of JSON; - is standard output",
            [outputs](const std::string& text) { outputs->events = someText("--events", text); });
}

/// The text broken into lines, all but the first indented.
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent) {
  std::string lines;
  std::size_t column = 0;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (column > 0 && column + 1 + word.size() > width) {
      lines += "\n" + std::string(indent, ' ');
      column = 0;
    }
    if (column > 0) lines += ' ';
    lines += word;
    column += (column > 0 ? 1 : 0) + word.size();
  }
  return lines;
}

/// Help as wide as a terminal.
class HelpLines : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool) const override {
    constexpr std::size_t INDENT = 25;
    constexpr std::size_t WIDTH = 55;
    std::string name = "  " + option->get_name();
    if (!option->get_type_name().empty()) name += " " + option->get_type_name();
    name += name.size() < INDENT ? std::string(INDENT - name.size(), ' ')
                                 : "\n" + std::string(INDENT, ' ');
    return name + wrapped(option->get_description(), WIDTH, INDENT) + "\n";
  }
  std::string make_usage(const CLI::App*, std::string) const override { return {}; }
  std::string make_description(const CLI::App* app) const override {
    return "usage: armengine [OPTION]...\n       armengine replay FILE\n" + app->get_description() +
           "\n";
  }
};

/// The program's options; they write into the line.
class Parser {
 public:
  explicit Parser(CommandLine* line)
      : app_("Serves the ARM calls of this machine's programs until SIGINT or SIGTERM.",
             "armengine") {
    app_.set_help_flag();
    app_.formatter(std::make_shared<HelpLines>());
    addQueueOptions(&app_, &line->queues);
    addRegistryOptions(&app_, &line->registry);
    addOutputOptions(&app_, &line->outputs);
    addFlag(&app_, "--report", &line->outputs.report,
            "print a table of the transaction classes at the end");
    addFlag(&app_, "--help", &line->help, "print this text");
    CLI::App* replay = app_.add_subcommand("replay", "print the table that a file of events gives");
    replay->set_help_flag();
    replay->add_option("FILE", line->replay, "what --events has written; - is standard input")
        ->required();
  }

  CLI::App& app() { return app_; }

 private:
  CLI::App app_;
};

std::string oneSentence(const CLI::ParseError& error) {
  std::string sentence = error.what();
  std::replace(sentence.begin(), sentence.end(), '\n', ' ');
  if (dynamic_cast<const BadValue*>(&error) != nullptr) return sentence;
  return sentence + ": see armengine --help";
}

/// What the parser would read as something else than it looks like.
bool isOdd(std::string_view argument) {
  return argument.empty() || argument == "--" || argument == "++" || argument == "--help=";
}

}  // namespace

CommandLine parseCommandLine(int count, char* const* arguments) {
  CommandLine line;
  Parser parser(&line);
  // "--name=" has an empty value, which the parser does not see as one.
  std::vector<std::string> given;
  for (int i = 0; i < count; ++i) {
    const std::string argument = arguments[i];
    const std::size_t equals =
        argument.rfind("--", 0) == 0 ? argument.find('=') : std::string::npos;
    const bool is_value = !given.empty() && given.back().rfind("--", 0) == 0;
    if (isOdd(argument) && !(argument.empty() && is_value)) {
      line.error = "unknown argument '" + argument + "': see armengine --help";
      return line;
    }
    given.push_back(argument.substr(0, equals));
    if (equals != std::string::npos) given.push_back(argument.substr(equals + 1));
  }
  // The parser takes the last argument first.
  std::reverse(given.begin(), given.end());
  try {
    parser.app().parse(given);
  } catch (const CLI::ParseError& error) {
    line.error = oneSentence(error);
  }
  return line;
}

std::string helpText() {
  CommandLine unused;
  return Parser(&unused).app().help();
}

}  // namespace armengine
