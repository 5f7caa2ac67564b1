#include "armrun/Options.h"

#include <getopt.h>

#include <cstdlib>

namespace armrun {

namespace {

// The library's limits, each with room for the terminating zero.
constexpr std::size_t LONGEST_APPLICATION = 127;
constexpr std::size_t LONGEST_TRANSACTION = 3619;
constexpr std::size_t LONGEST_DETAIL = 127;

constexpr double LONGEST_WAIT = 3600;

constexpr option LONG_OPTIONS[] = {
    {"app", required_argument, nullptr, 'a'},    {"transaction", required_argument, nullptr, 't'},
    {"detail", required_argument, nullptr, 'd'}, {"wait", required_argument, nullptr, 'w'},
    {"verbose", no_argument, nullptr, 'v'},      {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},      {nullptr, 0, nullptr, 0}};

bool parseWait(const char* text, Options* options) {
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(seconds >= 0 && seconds <= LONGEST_WAIT)) return false;
  options->wait = std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  return true;
}

void apply(int choice, const char* value, Options* options) {
  if (choice == 'a') options->application = value;
  if (choice == 't') options->transaction = value;
  if (choice == 'd') options->detail = value;
  if (choice == 'v') options->verbose = true;
  if (choice == 'h') options->help = true;
  if (choice == 'V') options->version = true;
  if (choice == 'w' && !parseWait(value, options)) {
    options->error =
        std::string("--wait needs a number of seconds from 0 to 3600, not '") + value + "'";
  }
}

std::string lengthError(const char* option, std::size_t limit) {
  return std::string(option) + " is too long: use at most " + std::to_string(limit) + " bytes";
}

/// The first thing that a command line without faults in single options lacks.
std::string missing(const Options& options) {
  if (options.application.empty()) return "say which application this belongs to: --app NAME";
  if (options.transaction.empty()) return "say what the transaction is called: --transaction NAME";
  if (options.application.size() > LONGEST_APPLICATION) {
    return lengthError("--app", LONGEST_APPLICATION);
  }
  if (options.transaction.size() > LONGEST_TRANSACTION) {
    return lengthError("--transaction", LONGEST_TRANSACTION);
  }
  if (options.detail.size() > LONGEST_DETAIL) return lengthError("--detail", LONGEST_DETAIL);
  if (*options.command == nullptr) return "say which command to run: armrun OPTIONS -- COMMAND";
  return "";
}

}  // namespace

Options parseOptions(int count, char** arguments) {
  Options options;
  opterr = 0;
  optind = 0;
  // "+": what follows the command's name belongs to the command.
  for (int choice; (choice = getopt_long(count, arguments, "+:", LONG_OPTIONS, nullptr)) != -1;) {
    const std::string given = arguments[optind - 1];
    if (choice == '?') options.error = "unknown option '" + given + "': see armrun --help";
    if (choice == ':') options.error = given + " needs a value: see armrun --help";
    apply(choice, optarg, &options);
    if (options.help || options.version || !options.error.empty()) return options;
  }
  options.command = arguments + optind;
  options.error = missing(options);
  return options;
}

const char* helpText() {
  return "usage: armrun --app NAME --transaction NAME [OPTION]... [--] COMMAND [ARGUMENT]...\n"
         "Runs a command and measures it as one transaction.\n"
         "  --app NAME           application that the transaction belongs to\n"
         "  --transaction NAME   name of the kind of transaction\n"
         "  --detail TEXT        a word about it, kept by the engine\n"
         "  --wait SECONDS       how long to wait for an engine that does not answer, once before\n"
         "                       and once after the command (default 2)\n"
         "  --verbose            say on standard error when the command is not measured, and why\n"
         "  --help, --version    print this text, the version\n"
         "The command is a child of the transaction whose correlator is in ARM_CORRELATOR, and "
         "finds\n"
         "the correlator of its own transaction there. Exit status 0 is good, any other failed, "
         "the\n"
         "end by a signal aborted. Without an engine the command runs all the same.\n"
         "Exit status: the command's; 125 armrun was called wrongly or could make no process;\n"
         "126 the command cannot be executed; 127 it was not found. When a signal ends the "
         "command, it ends armrun too.\n";
}

}  // namespace armrun
