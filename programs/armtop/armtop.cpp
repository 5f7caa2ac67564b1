// A live table of the transaction classes that an engine measures.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include "arguments/ArgumentParser.h"
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

constexpr double SHORTEST_TIME = 0.1;
constexpr double LONGEST_INTERVAL = 3600;
constexpr double LONGEST_WINDOW = 86400;

struct Options {
  armtext::HostPort engine = {"127.0.0.1", 9464};
  double interval = 2;
  double window = 60;
  bool window_given = false;
  armtop::Order order = {armtop::Column::rate, false};
  std::string filter;
  bool once = false;
  bool help = false;
  bool version = false;
};

bool print(const std::string& text) {
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

std::string tableText(const Options& options, const armtop::Figures* before,
                      const armtop::Figures& now) {
  std::string text = armtop::engineLine(now) + "\n\n";
  if (now.classes.empty()) {
    for (const std::string& line : armtop::emptyLines()) text += line + "\n";
    return text;
  }
  auto rows = armtop::filterRows(armtop::makeRows(before, now), options.filter);
  armtop::sortRows(&rows, options.order);
  for (const std::string& line : armtop::tableLines(rows, nullptr, NAME_COLUMNS)) {
    text += line + "\n";
  }
  return text;
}

/// One table as plain text: since the engine's start, or of a window that is waited for.
int printOnce(const Options& options) {
  std::string why;
  auto now = armtop::ask(options.engine, &why);
  std::optional<armtop::Figures> before;
  if (now && options.window_given) {
    before = std::move(now);
    std::this_thread::sleep_for(std::chrono::duration<double>(options.window));
    now = armtop::ask(options.engine, &why);
  }
  if (!now) return armtools::complain("armtop", why, NO_ANSWER);
  return print(tableText(options, before ? &*before : nullptr, *now)) ? GOOD : NOT_WRITTEN;
}

int runLive(const Options& options) {
  armtop::Poller poller(options.engine, std::chrono::duration<double>(options.interval),
                        std::chrono::duration<double>(options.window));
  std::string why;
  if (!armtop::runScreen(&poller, options.engine.text(), options.order, options.filter, &why)) {
    return armtools::complain("armtop", why, BAD_INPUT);
  }
  return GOOD;
}

std::string readAddress(const std::string& text, armtext::HostPort* engine) {
  const auto address = armtop::parseAddress(text);
  if (address) *engine = *address;
  return address ? "" : "needs ADDRESS:PORT, not '" + text + "'";
}

std::string readColumn(const std::string& text, armtop::Column* column) {
  if (armtop::columnNamed(text, column)) return "";
  std::string names;
  for (int i = 0; i < armtop::COLUMNS; ++i) {
    names += std::string(i > 0 ? ", " : "") + armtop::nameOf(static_cast<armtop::Column>(i));
  }
  return "needs one of " + names;
}

std::string readWindow(const std::string& text, Options* options) {
  options->window_given = true;
  return armarguments::numberInto(&options->window, SHORTEST_TIME, LONGEST_WINDOW)(text);
}

void declare(armarguments::ArgumentParser* parser, Options* options) {
  parser->option("--engine", "ADDRESS:PORT", "where the engine listens (default 127.0.0.1:9464)",
                 [=](const std::string& text) { return readAddress(text, &options->engine); });
  parser->option("--interval", "SECONDS", "ask the engine every SECONDS (default 2)",
                 armarguments::numberInto(&options->interval, SHORTEST_TIME, LONGEST_INTERVAL));
  parser->option("--window", "SECONDS", "show the last SECONDS (default 60)",
                 [=](const std::string& text) { return readWindow(text, options); });
  parser->option("--sort", "COLUMN", "sort by COLUMN (default rate)",
                 [=](const std::string& text) { return readColumn(text, &options->order.column); });
  parser->flag("--reverse", "sort the other way round", &options->order.reversed);
  parser->option("--filter", "TEXT", "show only names that contain TEXT",
                 [=](const std::string& text) {
                   options->filter = text;
                   return "";
                 });
  parser->flag("--once",
               "print one table as plain text: since the engine's start, or of --window SECONDS "
               "from now on",
               &options->once);
  parser->flag("--help", "print this text", &options->help);
  parser->flag("--version", "print the version", &options->version);
  parser->footer(
      "Without a terminal, armtop prints as with --once. In the table, h shows the keys.\n"
      "Exit status: 0 good, 1 the engine does not answer (with --once), 2 wrong use or an unknown\n"
      "terminal, 4 the output could not be written.");
}

int run(int count, char** arguments) {
  armtext::useLocale();
  armarguments::ArgumentParser parser(
      "armtop", "usage: armtop [OPTION]...",
      "A live table of the transaction classes that an engine measures.");
  Options options;
  declare(&parser, &options);
  const std::string wrong = parser.parse(count - 1, arguments + 1);
  if (!wrong.empty()) return armtools::complain("armtop", wrong, BAD_INPUT);
  if (options.help) return print(parser.help()) ? GOOD : NOT_WRITTEN;
  if (options.version) return print(armtools::versionText("armtop") + "\n") ? GOOD : NOT_WRITTEN;
  const bool plain = options.once || isatty(STDOUT_FILENO) == 0;
  return plain ? printOnce(options) : runLive(options);
}

}  // namespace

int main(int count, char** arguments) {
  return armtools::guarded("armtop", run, count, arguments, NOT_WRITTEN);
}
