#include "armtop/Screen.h"

// Its macros take names such as scroll away.
#define NCURSES_NOMACROS
#include <ncurses.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "text/Columns.h"

namespace armtop {

namespace {

constexpr int KEY_WAIT_MILLISECONDS = 100;
constexpr int ESCAPE = 27;
constexpr int HEADER_LINES = 2;
constexpr double SHORTEST_INTERVAL = 0.1;
constexpr double LONGEST_INTERVAL = 3600;
// Columns that the seven figures and the gaps between them take.
constexpr std::size_t FIGURE_COLUMNS = 72;
constexpr std::size_t SMALLEST_NAME = 12;

const std::vector<std::string> HELP = {
    "  < >  or arrows left, right   sort by another column",
    "  r                            reverse the order",
    "  up down, page up, page down  scroll",
    "  /                            show only names that contain a text; Enter ends it",
    "  t                            figures of the window, or since the engine's start",
    "  + -                          ask more seldom, more often",
    "  p                            pause",
    "  h ?                          this help",
    "  q                            end",
    "",
    "  rate/s and p50 to p99 are those of the window; percentiles are interpolated",
    "  in the engine's buckets. errors: share of failed and aborted transactions.",
};

/// The terminal, given back at the end.
class Terminal {
 public:
  Terminal() : screen_(newterm(nullptr, stdout, stdin)) {
    if (screen_ == nullptr) return;
    (void)cbreak();
    (void)noecho();
    (void)keypad(stdscr, TRUE);
    (void)set_escdelay(25);
    (void)curs_set(0);
    timeout(KEY_WAIT_MILLISECONDS);
  }
  ~Terminal() {
    if (screen_ == nullptr) return;
    (void)endwin();
    delscreen(screen_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  explicit operator bool() const { return screen_ != nullptr; }

 private:
  SCREEN* screen_;
};

void paint(int line, const std::string& text, attr_t attributes = A_NORMAL) {
  (void)attr_set(attributes, 0, nullptr);
  const auto width = static_cast<std::size_t>(std::max(COLS, 4));
  (void)mvaddstr(line, 0, armtext::printable(text, width).c_str());
  if ((attributes & A_REVERSE) != 0) {
    for (std::size_t at = armtext::columnsOf(text); at < width; ++at) (void)addch(' ');
  }
  (void)attr_set(A_NORMAL, 0, nullptr);
}

class Screen {
 public:
  Screen(Poller* poller, std::string address, Order order, std::string filter)
      : poller_(poller), address_(std::move(address)), order_(order), filter_(std::move(filter)) {}

  void run() {
    unsigned long shown = 0;
    bool changed = true;
    while (!over_) {
      const Poller::State latest = poller_->state();
      if (!paused_ && (latest.answers != shown || latest.problem != state_.problem)) {
        shown = latest.answers;
        state_ = latest;
        changed = true;
      }
      if (changed) draw();
      const int key = getch();
      changed = key != ERR;
      if (changed) take(key);
    }
  }

 private:
  void take(int key) {
    if (typing_) {
      takeText(key);
    } else if (help_ && key != 'q') {
      help_ = false;
    } else {
      takeCommand(key);
    }
  }

  void takeCommand(int key) {
    switch (key) {
      case 'q':
        over_ = true;
        break;
      case 'h':
      case '?':
        help_ = true;
        break;
      case 'r':
        order_.reversed = !order_.reversed;
        break;
      case 't':
        since_start_ = !since_start_;
        break;
      case 'p':
        paused_ = !paused_;
        break;
      case '/':
        typing_ = true;
        filter_.clear();
        break;
      case '<':
      case KEY_LEFT:
        sortBy(-1);
        break;
      case '>':
      case KEY_RIGHT:
        sortBy(1);
        break;
      case '+':
        changeInterval(2);
        break;
      case '-':
        changeInterval(0.5);
        break;
      default:
        scroll(key);
        break;
    }
  }

  void scroll(int key) {
    const int page = std::max(LINES - HEADER_LINES - 1, 1);
    if (key == KEY_DOWN) ++first_;
    if (key == KEY_UP) --first_;
    if (key == KEY_NPAGE) first_ += page;
    if (key == KEY_PPAGE) first_ -= page;
    if (key == KEY_HOME) first_ = 0;
  }

  void takeText(int key) {
    if (key == '\n' || key == KEY_ENTER || key == ESCAPE) {
      typing_ = false;
      if (key == ESCAPE) filter_.clear();
    } else if (key == KEY_BACKSPACE || key == 127 || key == '\b') {
      // A character of several bytes goes whole.
      while (!filter_.empty() && (static_cast<unsigned char>(filter_.back()) & 0xC0) == 0x80) {
        filter_.pop_back();
      }
      if (!filter_.empty()) filter_.pop_back();
    } else if (key >= ' ' && key <= 0xFF) {
      filter_ += static_cast<char>(key);
    }
    first_ = 0;
  }

  void sortBy(int step) {
    order_.column =
        static_cast<Column>((static_cast<int>(order_.column) + step + COLUMNS) % COLUMNS);
  }

  void changeInterval(double factor) {
    const double wanted = poller_->interval().count() * factor;
    poller_->setInterval(
        std::chrono::duration<double>(std::clamp(wanted, SHORTEST_INTERVAL, LONGEST_INTERVAL)));
  }

  std::string titleLine() {
    std::string line = "armtop  " + address_;
    if (state_.now) line += "  " + engineLine(*state_.now);
    return line;
  }

  std::string modeLine() {
    std::string line = since_start_ || !state_.before ? "since the engine's start" : windowText();
    line += ", every " + readableNumber(poller_->interval().count()) + " s, sorted by " +
            nameOf(order_.column);
    if (!filter_.empty() || typing_) line += ", only '" + filter_ + (typing_ ? "_" : "") + "'";
    if (paused_) line += ", PAUSED";
    return line + "  (h: help, q: end)";
  }

  std::string windowText() {
    const std::chrono::duration<double> window = state_.now->time - state_.before->time;
    return "last " + readableNumber(window.count()) + " s";
  }

  void draw() {
    (void)erase();
    paint(0, titleLine(), A_BOLD);
    paint(1, state_.problem.empty() ? modeLine() : state_.problem,
          state_.problem.empty() ? A_NORMAL : A_BOLD);
    if (help_) {
      drawLines(HELP);
    } else if (state_.now && state_.now->classes.empty()) {
      drawLines(emptyLines());
    } else if (state_.now) {
      drawTable();
    }
    (void)refresh();
  }

  static void drawLines(const std::vector<std::string>& lines) {
    int at = HEADER_LINES + 1;
    for (const std::string& line : lines) paint(at++, line);
  }

  void drawTable() {
    const Figures* before = since_start_ || !state_.before ? nullptr : &*state_.before;
    std::vector<Row> rows = filterRows(makeRows(before, *state_.now), filter_);
    sortRows(&rows, order_);
    const int room = std::max(LINES - HEADER_LINES - 1, 1);
    first_ = std::clamp(first_, 0, std::max(static_cast<int>(rows.size()) - room, 0));
    rows.erase(rows.begin(), rows.begin() + first_);
    const auto width = static_cast<std::size_t>(std::max(COLS, 0));
    const std::size_t for_names = width > FIGURE_COLUMNS ? (width - FIGURE_COLUMNS) / 2 : 0;
    const auto lines = tableLines(rows, &order_, std::max(for_names, SMALLEST_NAME));
    paint(HEADER_LINES, lines.front(), A_REVERSE);
    for (std::size_t i = 1; i < lines.size() && static_cast<int>(i) <= room; ++i) {
      const bool has_errors = rows[i - 1].errors.value_or(0) > 0;
      paint(HEADER_LINES + static_cast<int>(i), lines[i], has_errors ? A_BOLD : A_NORMAL);
    }
  }

  Poller* poller_;
  std::string address_;
  Order order_;
  std::string filter_;
  Poller::State state_;
  bool since_start_ = false;
  bool paused_ = false;
  bool help_ = false;
  bool typing_ = false;
  bool over_ = false;
  int first_ = 0;
};

}  // namespace

bool runScreen(Poller* poller, const std::string& address, Order order, std::string filter,
               std::string* why) {
  const Terminal terminal;
  if (!terminal) {
    const char* name = std::getenv("TERM");
    *why = "the terminal '" + std::string(name != nullptr ? name : "") +
           "' is not known: set TERM, or use --once";
    return false;
  }
  Screen(poller, address, order, std::move(filter)).run();
  return true;
}

}  // namespace armtop
