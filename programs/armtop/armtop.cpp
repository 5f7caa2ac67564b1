// A live table of the transaction classes that an engine measures.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <thread>

#include "armtop/Poller.h"
#include "armtop/Screen.h"
#include "armtop/View.h"
#include "common/Program.h"
#include "text/Columns.h"
#include "text/HostPort.h"

namespace {

constexpr int GOOD = 0;
constexpr int NO_ANSWER = 1;
constexpr int BAD_INPUT = 2;
constexpr int NOT_WRITTEN = 4;

constexpr std::size_t NAME_COLUMNS = 40;

struct Options {
  std::string engine = "127.0.0.1:9464";
  double interval = 2;
  double window = 60;
  bool window_given = false;
  std::string sort = "rate";
  bool reverse = false;
  std::string filter;
  bool once = false;
};

bool print(const std::string& text) {
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

armtop::Order orderOf(const Options& options) {
  armtop::Order order;
  (void)armtop::columnNamed(options.sort, &order.column);
  order.reversed = options.reverse;
  return order;
}

std::string tableText(const Options& options, const armtop::Figures* before,
                      const armtop::Figures& now) {
  std::string text = armtop::engineLine(now) + "\n\n";
  if (now.classes.empty()) {
    for (const std::string& line : armtop::emptyLines()) text += line + "\n";
    return text;
  }
  auto rows = armtop::filterRows(armtop::makeRows(before, now), options.filter);
  armtop::sortRows(&rows, orderOf(options));
  for (const std::string& line : armtop::tableLines(rows, nullptr, NAME_COLUMNS)) {
    text += line + "\n";
  }
  return text;
}

/// One table as plain text: since the engine's start, or of a window that is waited for.
int printOnce(const Options& options, const armtext::HostPort& address) {
  std::string why;
  auto now = armtop::ask(address, &why);
  std::optional<armtop::Figures> before;
  if (now && options.window_given) {
    before = std::move(now);
    std::this_thread::sleep_for(std::chrono::duration<double>(options.window));
    now = armtop::ask(address, &why);
  }
  if (!now) return armtools::complain("armtop", why, NO_ANSWER);
  return print(tableText(options, before ? &*before : nullptr, *now)) ? GOOD : NOT_WRITTEN;
}

int runLive(const Options& options, const armtext::HostPort& address) {
  armtop::Poller poller(address, std::chrono::duration<double>(options.interval),
                        std::chrono::duration<double>(options.window));
  std::string why;
  if (!armtop::runScreen(&poller, address.text(), orderOf(options), options.filter, &why)) {
    return armtools::complain("armtop", why, BAD_INPUT);
  }
  return GOOD;
}

std::string checkAddress(const std::string& text) {
  return armtop::parseAddress(text) ? "" : "needs ADDRESS:PORT, not '" + text + "'";
}

std::string checkColumn(const std::string& text) {
  armtop::Column column = {};
  if (armtop::columnNamed(text, &column)) return "";
  std::string names;
  for (int i = 0; i < armtop::COLUMNS; ++i) {
    names += std::string(i > 0 ? ", " : "") + armtop::nameOf(static_cast<armtop::Column>(i));
  }
  return "needs one of " + names;
}

void declare(CLI::App* app, Options* options) {
  app->set_version_flag("--version", armtools::versionText("armtop"));
  app->set_help_flag("--help", "Print this help and exit");
  app->add_option("--engine", options->engine, "Where the engine listens (default 127.0.0.1:9464)")
      ->check(CLI::Validator(checkAddress, "ADDRESS:PORT"));
  app->add_option("--interval", options->interval, "Ask the engine every SECONDS (default 2)")
      ->check(CLI::Range(0.1, 3600.0).description("SECONDS"));
  app->add_option("--window", options->window, "Show the last SECONDS (default 60)")
      ->check(CLI::Range(0.1, 86400.0).description("SECONDS"));
  app->add_option("--sort", options->sort, "Sort by COLUMN (default rate)")
      ->check(CLI::Validator(checkColumn, "COLUMN"));
  app->add_flag("--reverse", options->reverse, "Sort the other way round");
  app->add_option("--filter", options->filter, "Show only names that contain TEXT");
  app->add_flag("--once", options->once,
                "Print one table as plain text: since the engine's start, or of --window SECONDS "
                "from now on");
  app->footer(
      "Without a terminal, armtop prints as with --once. In the table, h shows the keys.\n"
      "Exit status: 0 good, 1 the engine does not answer (with --once), 2 wrong use or an unknown\n"
      "terminal, 4 the output could not be written.");
}

int run(int count, char** arguments) {
  armtext::useLocale();
  CLI::App app("A live table of the transaction classes that an engine measures.", "armtop");
  Options options;
  declare(&app, &options);
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error) == 0 && std::fflush(stdout) == 0 ? GOOD : NOT_WRITTEN;
    }
    return armtools::complain("armtop", std::string(error.what()) + ": see armtop --help",
                              BAD_INPUT);
  }
  options.window_given = app.count("--window") > 0;
  const armtext::HostPort address = *armtop::parseAddress(options.engine);
  const bool plain = options.once || isatty(STDOUT_FILENO) == 0;
  return plain ? printOnce(options, address) : runLive(options, address);
}

}  // namespace

int main(int count, char** arguments) {
  return armtools::guarded("armtop", run, count, arguments, NOT_WRITTEN);
}
