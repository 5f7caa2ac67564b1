#include "armcontract/Options.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace armcontract {

namespace {

constexpr int LONGEST_PATIENCE = 600;

bool applyPatience(std::string_view text, CommandLine* line) {
  int seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  const bool good = error == std::errc() && stop == end && seconds >= 1;
  if (!good || seconds > LONGEST_PATIENCE) {
    line->error = "--patience needs a number of seconds from 1 to " +
                  std::to_string(LONGEST_PATIENCE) + ", not '" + std::string(text) + "'";
  }
  line->settings.patience = std::chrono::seconds(seconds);
  return true;
}

/// Applies an option that has a value; false when there is none of that name.
bool applyValue(std::string_view option, std::string_view value, CommandLine* line) {
  if (option == "--patience") return applyPatience(value, line);
  if (option == "--prefix") {
    line->settings.prefix = std::string(value);
    return true;
  }
  if (option == "--clause") {
    line->clauses.emplace_back(value);
    return true;
  }
  return false;
}

bool takesValue(std::string_view option) {
  CommandLine unused;
  return applyValue(option, "1", &unused);
}

bool applyFlag(std::string_view option, CommandLine* line) {
  bool* flag = nullptr;
  if (option == "--json") flag = &line->json;
  if (option == "--list") flag = &line->list;
  if (option == "--help") flag = &line->help;
  if (option == "--verbose") flag = &line->settings.verbose;
  if (flag == nullptr) return false;
  *flag = true;
  return true;
}

}  // namespace

CommandLine parseCommandLine(int count, char* const* arguments) {
  CommandLine line;
  const char* inherited = std::getenv("ARM_AGENT_PREFIX");
  if (inherited != nullptr) line.settings.prefix = inherited;
  for (int i = 0; i < count && line.error.empty(); ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--") {
      line.settings.engine.assign(arguments + i + 1, arguments + count);
      if (i + 1 == count) line.error = "the engine's command is missing after --";
      break;
    }
    const std::size_t equals = argument.find('=');
    const std::string_view option = argument.substr(0, equals);
    if (equals == std::string_view::npos && applyFlag(argument, &line)) continue;
    if (!takesValue(option)) {
      line.error = "unknown argument '" + std::string(argument) + "': see armcontract --help";
    } else if (equals != std::string_view::npos) {
      (void)applyValue(option, argument.substr(equals + 1), &line);
    } else if (i + 1 < count) {
      (void)applyValue(option, arguments[++i], &line);
    } else {
      line.error = std::string(option) + " needs a value: see armcontract --help";
    }
  }
  return line;
}

std::string helpText() {
  return "usage: armcontract [OPTION]... [-- ENGINE [ARGUMENT]...]\n"
         "Plays the library's side against an engine and tells which clauses of the contract\n"
         "hold.  With ENGINE it starts that command, in the foreground and with ARM_AGENT_PREFIX\n"
         "set, again and again, ends and kills it, and writes garbage into its memory.  Without\n"
         "one it looks at the engine that runs, and leaves out what could harm that.\n"
         "  --prefix NAME       the prefix of the engine (default: ARM_AGENT_PREFIX)\n"
         "  --clause NAME       check this clause only; may be given several times\n"
         "  --patience SECONDS  how long an answer may take, 1 to 600 (default 5)\n"
         "  --json              print the verdicts as JSON\n"
         "  --list              print the clauses and check nothing\n"
         "  --verbose           show the engine's output on standard error\n"
         "  --help              print this text\n"
         "The exit status is 0 when no clause is broken, 1 when one is or none could be checked,\n"
         "and 2 when the command line is wrong.\n";
}

}  // namespace armcontract
