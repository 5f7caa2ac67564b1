// Looks into the shared objects of an engine from outside.

#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "arguments/ArgumentParser.h"
#include "armstat/Clean.h"
#include "armstat/Doctor.h"
#include "armstat/Objects.h"
#include "armstat/Picture.h"
#include "armstat/Show.h"
#include "common/Program.h"
#include "system/Limits.h"
#include "text/Columns.h"

namespace {

constexpr int GOOD = 0;
constexpr int NOT_SERVING = 1;
constexpr int BAD_INPUT = 2;
constexpr int NOT_READABLE = 3;
constexpr int NOT_WRITTEN = 4;

constexpr double SHORTEST_PAUSE = 0.01;
constexpr double LONGEST_PAUSE = 86400;

struct Options {
  std::optional<std::string> prefix;
  bool json = false;
  bool consistent = false;
  double watch = 0;  ///< seconds; 0: once
  bool doctor = false;
  bool clean = false;
  bool yes = false;
  bool dry_run = false;
  bool help = false;
  bool version = false;
};

int exitCodeFor(armstat::EngineState state) {
  if (state == armstat::EngineState::serving) return GOOD;
  return state == armstat::EngineState::unknown ? NOT_READABLE : NOT_SERVING;
}

bool print(const std::string& text) {
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

int show(const Options& options) {
  const auto manner =
      options.consistent ? armstat::Manner::with_lock : armstat::Manner::without_lock;
  const bool watching = options.watch > 0;
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  for (bool first = true;; first = false) {
    const armstat::Picture picture = armstat::takePicture(manner);
    std::string text =
        options.json ? armstat::asJson(picture, !watching) + "\n" : armstat::asText(picture);
    if (watching && !options.json) {
      // On a terminal in place of the last one, else one below the other.
      text.insert(0, terminal ? "\x1b[H\x1b[2J" : (first ? "" : "\n"));
    }
    if (!print(text)) return NOT_WRITTEN;
    if (!watching) return exitCodeFor(picture.engine.state);
    std::this_thread::sleep_for(std::chrono::duration<double>(options.watch));
  }
}

int diagnose(const Options& options) {
  const armstat::Diagnosis diagnosis = armstat::diagnose();
  if (!print(options.json ? armstat::asJson(diagnosis) + "\n" : armstat::asText(diagnosis))) {
    return NOT_WRITTEN;
  }
  return diagnosis.healthy() ? GOOD : NOT_SERVING;
}

bool confirmed(const Options& options) {
  if (options.yes) return true;
  if (!print("Remove them? [y/N] ")) return false;
  char answer[16] = {};
  if (std::fgets(answer, sizeof answer, stdin) == nullptr) answer[0] = 'n';
  return answer[0] == 'y' || answer[0] == 'Y';
}

int clean(const Options& options) {
  armstat::Cleaning cleaning;
  if (!cleaning.refusal().empty()) {
    return armtools::complain("armstat", cleaning.refusal(), NOT_SERVING);
  }
  if (!print(cleaning.list())) return NOT_WRITTEN;
  if (cleaning.isEmpty() || options.dry_run) return GOOD;
  if (!confirmed(options)) return armtools::complain("armstat", "nothing was removed", NOT_SERVING);
  const std::string failure = cleaning.remove();
  return failure.empty() ? GOOD : armtools::complain("armstat", failure, NOT_SERVING);
}

std::string readPrefix(const std::string& text, std::optional<std::string>* prefix) {
  *prefix = text;
  if (armengine::isPrefix(text)) return "";
  return "needs a name of at most " + std::to_string(armengine::LONGEST_PREFIX) +
         " characters without '/'";
}

/// Options that a subcommand has no use for.
std::string misused(const Options& options) {
  if ((options.doctor || options.clean) && (options.consistent || options.watch > 0)) {
    return "--watch and --consistent are for armstat without a subcommand";
  }
  if (options.clean && options.json) return "armstat clean has no --json";
  return "";
}

void declare(armarguments::ArgumentParser* parser, Options* options) {
  parser->option("--prefix", "NAME", "the engine's prefix (default: ARM_AGENT_PREFIX)",
                 [options](const std::string& text) { return readPrefix(text, &options->prefix); });
  parser->flag("--json", "print JSON; with --watch one object a line", &options->json);
  parser->flag("--consistent", "copy the queues under their locks, instead of beside them",
               &options->consistent);
  parser->optional("--watch", "[SECONDS]", "repeat every SECONDS (default 2)", "2",
                   armarguments::numberInto(&options->watch, SHORTEST_PAUSE, LONGEST_PAUSE));
  parser->flag("--help", "print this text", &options->help);
  parser->flag("--version", "print the version", &options->version);
  parser->subcommand("doctor", "check what usually goes wrong, and say what to do",
                     &options->doctor);
  auto& clean = parser->subcommand("clean", "remove what a dead engine has left", &options->clean);
  clean.flag("--yes", "do not ask", &options->yes);
  clean.flag("--dry-run", "only show what would be removed", &options->dry_run);
  parser->footer(
      "Exit status: 0 an engine serves (doctor: nothing is wrong; clean: done), 1 none does\n"
      "(doctor: something is wrong; clean: refused), 2 wrong use, 3 the objects may not be read,\n"
      "4 the output could not be written.");
}

int run(int count, char** arguments) {
  armtext::useLocale();
  armarguments::ArgumentParser parser(
      "armstat",
      "usage: armstat [OPTION]...\n       armstat doctor [OPTION]...\n       armstat clean "
      "[--yes] [--dry-run]",
      "Looks into the shared objects of an engine from outside, without asking it.");
  Options options;
  declare(&parser, &options);
  std::string wrong = parser.parse(count - 1, arguments + 1);
  if (wrong.empty()) wrong = misused(options);
  if (!wrong.empty()) return armtools::complain("armstat", wrong, BAD_INPUT);
  if (options.help) return print(parser.help()) ? GOOD : NOT_WRITTEN;
  if (options.version) return print(armtools::versionText("armstat") + "\n") ? GOOD : NOT_WRITTEN;
  if (options.prefix) armstat::choosePrefix(*options.prefix);
  if (options.doctor) return diagnose(options);
  return options.clean ? clean(options) : show(options);
}

}  // namespace

int main(int count, char** arguments) {
  return armtools::guarded("armstat", run, count, arguments, NOT_WRITTEN);
}
