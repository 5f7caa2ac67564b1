// Looks into the shared objects of an engine from outside.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <thread>

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

constexpr double LONGEST_PAUSE = 86400;

struct Options {
  std::string prefix;
  bool json = false;
  bool consistent = false;
  std::string watch;
  bool yes = false;
  bool dry_run = false;
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
  const bool watching = !options.watch.empty();
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
    std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(options.watch)));
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

std::string checkPrefix(const std::string& prefix) {
  if (armengine::isPrefix(prefix)) return "";
  return "needs a name of at most " + std::to_string(armengine::LONGEST_PREFIX) +
         " characters without '/'";
}

/// Options that a subcommand has no use for.
std::string misused(const Options& options, bool doctor, bool cleaner) {
  if ((doctor || cleaner) && (options.consistent || !options.watch.empty())) {
    return "--watch and --consistent are for armstat without a subcommand";
  }
  if (cleaner && options.json) return "armstat clean has no --json";
  return "";
}

void declare(CLI::App* app, Options* options, CLI::Option** prefix) {
  app->set_version_flag("--version", armtools::versionText("armstat"));
  app->set_help_flag("--help", "Print this help and exit");
  *prefix = app->add_option("--prefix", options->prefix,
                            "The engine's prefix (default: ARM_AGENT_PREFIX)")
                ->check(CLI::Validator(checkPrefix, "NAME"))
                ->expected(1);
  app->add_flag("--json", options->json, "Print JSON; with --watch one object a line");
  app->add_flag("--consistent", options->consistent,
                "Copy the queues under their locks, instead of beside them");
  app->add_option("--watch", options->watch, "Repeat every SECONDS (default 2)")
      ->expected(0, 1)
      ->default_str("2")
      ->check(CLI::Range(0.01, LONGEST_PAUSE).description("SECONDS"));
  app->require_subcommand(0, 1);
  app->fallthrough();
  app->footer(
      "Exit status: 0 an engine serves (doctor: nothing is wrong; clean: done), 1 none does\n"
      "(doctor: something is wrong; clean: refused), 2 wrong use, 3 the objects may not be read,\n"
      "4 the output could not be written.");
}

int run(int count, char** arguments) {
  armtext::useLocale();
  CLI::App app("Looks into the shared objects of an engine from outside, without asking it.",
               "armstat");
  Options options;
  CLI::Option* prefix = nullptr;
  declare(&app, &options, &prefix);
  const CLI::App* doctor =
      app.add_subcommand("doctor", "Check what usually goes wrong, and say what to do");
  CLI::App* cleaner = app.add_subcommand("clean", "Remove what a dead engine has left");
  cleaner->add_flag("--yes", options.yes, "Do not ask");
  cleaner->add_flag("--dry-run", options.dry_run, "Only show what would be removed");
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0)
      return app.exit(error) == 0 && std::fflush(stdout) == 0 ? GOOD : NOT_WRITTEN;
    return armtools::complain("armstat", std::string(error.what()) + ": see armstat --help",
                              BAD_INPUT);
  }
  const std::string misuse = misused(options, doctor->parsed(), cleaner->parsed());
  if (!misuse.empty()) return armtools::complain("armstat", misuse, BAD_INPUT);
  if (prefix->count() > 0) armstat::choosePrefix(options.prefix);
  if (doctor->parsed()) return diagnose(options);
  if (cleaner->parsed()) return clean(options);
  return show(options);
}

}  // namespace

int main(int count, char** arguments) {
  return armtools::guarded("armstat", run, count, arguments, NOT_WRITTEN);
}
