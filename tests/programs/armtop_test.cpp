// The program armtop: in a terminal that tmux plays, with an engine and with servers that are none.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "process.h"
#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::waitUntil;
using armtest::wordsOfLine;

/// A server whose page the test writes.
class Server {
 public:
  explicit Server(std::string page = "", int status = 200) : page_(std::move(page)) {
    server_.Get("/metrics", [this, status](const httplib::Request&, httplib::Response& response) {
      const std::lock_guard<std::mutex> guard(mutex_);
      response.status = status;
      response.set_content(page_, "text/plain; version=0.0.4");
      if (!next_.empty()) page_ = std::exchange(next_, "");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~Server() { stop(); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string option() const { return " --engine 127.0.0.1:" + std::to_string(port_) + " "; }
  void show(const std::string& page) {
    const std::lock_guard<std::mutex> guard(mutex_);
    page_ = page;
  }
  /// Shows a page from the second request on.
  void showAfterOneLook(const std::string& page) {
    const std::lock_guard<std::mutex> guard(mutex_);
    next_ = page;
  }
  void stop() {
    if (!thread_.joinable()) return;
    EXPECT_TRUE(waitUntil([this] { return server_.is_running(); }));
    server_.stop();
    thread_.join();
  }

 private:
  httplib::Server server_;
  int port_;
  std::mutex mutex_;
  std::string page_;
  std::string next_;
  std::thread thread_;
};

/// A class as an engine's page shows it.
std::string classPage(const std::string& application, const std::string& transaction, int finished,
                      int failed) {
  const std::string labels =
      "application=\"" + application + "\",transaction=\"" + transaction + "\"";
  return "arm_transactions_total{" + labels + ",status=\"good\"} " +
         std::to_string(finished - failed) + "\narm_transactions_total{" + labels +
         ",status=\"failed\"} " + std::to_string(failed) + "\narm_transactions_in_flight{" +
         labels + "} 4\narm_transaction_duration_seconds_bucket{" + labels + ",le=\"0.1\"} " +
         std::to_string(finished) + "\narm_transaction_duration_seconds_bucket{" + labels +
         ",le=\"+Inf\"} " + std::to_string(finished) + "\n";
}

const std::string THREE_CLASSES = classPage("shop", "order", 100, 0) +
                                  classPage("bank", "transfer", 300, 30) +
                                  classPage("post", "letter", 200, 100);

Ran armtop(const std::string& arguments) {
  return runShell(builtProgram("armtop") + " " + arguments);
}

/// Line numbers of pieces in a text, in the order of the pieces.
std::vector<size_t> placesOf(const std::string& text, const std::vector<std::string>& pieces) {
  std::vector<size_t> places;
  places.reserve(pieces.size());
  for (const std::string& piece : pieces) places.push_back(text.find(piece));
  return places;
}

bool areInOrder(const std::string& text, const std::vector<std::string>& pieces) {
  const auto places = placesOf(text, pieces);
  for (size_t i = 0; i < places.size(); ++i) {
    if (places[i] == std::string::npos || (i > 0 && places[i] < places[i - 1])) return false;
  }
  return true;
}

// ---- plain text ---------------------------------------------------------------------------------

TEST(Armtop, OnceIsAPlainTable) {
  const Server server(THREE_CLASSES);
  const Ran ran = armtop("--once --sort count" + server.option());
  EXPECT_EQ(0, ran.status) << ran.err;
  EXPECT_EQ(6U, linesWith(ran.out, "")) << ran.out;
  EXPECT_EQ((std::vector<std::string>{"bank", "transfer", "300", "-", "10", "%", "50.0", "ms",
                                      "95.0", "ms", "99.0", "ms", "4"}),
            wordsOfLine(ran.out, {"bank"}));
  EXPECT_TRUE(areInOrder(ran.out, {"bank", "post", "shop"}));
  EXPECT_EQ(std::string::npos, ran.out.find('\x1b'));
}

TEST(Armtop, WithoutATerminalItPrintsOnce) {
  const Server server(THREE_CLASSES);
  EXPECT_EQ(armtop("--once" + server.option()).out, armtop(server.option()).out);
}

TEST(Armtop, OnceOverAWindowCountsWhatHappensMeanwhile) {
  Server server(classPage("shop", "order", 100, 0));
  server.showAfterOneLook(classPage("shop", "order", 140, 10));
  const Ran ran = armtop("--once --window 1" + server.option());
  const auto words = wordsOfLine(ran.out, {"shop"});
  ASSERT_GE(words.size(), 6U) << ran.out;
  EXPECT_EQ("40", words[2]);
  EXPECT_EQ("25", words[4]);
}

TEST(Armtop, FilterAndOrderHoldForPlainTextToo) {
  const Server server(THREE_CLASSES);
  const Ran ran = armtop("--once --sort application --reverse --filter o" + server.option());
  EXPECT_TRUE(areInOrder(ran.out, {"shop", "post"})) << ran.out;
  EXPECT_EQ(0U, linesWith(ran.out, "bank"));
}

TEST(Armtop, EngineWithoutTransactionsTellsHowToSendOne) {
  const Server server("arm_engine_build_info{version=\"2.0.0\"} 1\n");
  EXPECT_EQ(1U, linesWith(armtop("--once" + server.option()).out, "armrun --app NAME"));
}

TEST(Armtop, SilentOrStrangeServersAreOneSentence) {
  Server gone;
  const std::string nobody = gone.option();
  gone.stop();
  const Server strange("<html></html>");
  const Server refusing("", 503);
  for (const auto& [option, piece] :
       {std::pair{nobody, std::string("nobody listens there")},
        std::pair{strange.option(), std::string("serves nothing of an engine")},
        std::pair{refusing.option(), std::string("answers with status 503")}}) {
    const Ran ran = armtop("--once" + option);
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("", ran.out);
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
    EXPECT_EQ(1U, linesWith(ran.err, piece)) << ran.err;
  }
}

TEST(Armtop, WrongUseIsOneSentenceAndStatusTwo) {
  for (const char* arguments : {"--what", "extra", "--engine x", "--engine", "--interval 0",
                                "--interval x", "--window 0", "--sort size"}) {
    const Ran ran = armtop(arguments);
    EXPECT_EQ(2, ran.status) << arguments;
    EXPECT_EQ("", ran.out) << arguments;
    EXPECT_EQ(0U, ran.err.find("armtop: ")) << ran.err;
    EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  }
}

TEST(Armtop, HelpAndVersionArePrinted) {
  EXPECT_EQ(0U, armtop("--version").out.find("armtop 2."));
  EXPECT_EQ(1U, linesWith(armtop("--help").out, "--engine"));
  const Server server(THREE_CLASSES);
  EXPECT_EQ(4, armtop("--once" + server.option() + ">/dev/full").status);
}

// ---- in a terminal ------------------------------------------------------------------------------

/// armtop in a terminal of 100 columns and 20 lines.
class TopScreen {
 public:
  explicit TopScreen(const std::string& arguments) {
    EXPECT_EQ(0, tmux("-f /dev/null new-session -d -x 100 -y 20 '" + builtProgram("armtop") +
                      " --interval 0.1 " + arguments + "'")
                     .status);
  }
  ~TopScreen() { (void)tmux("kill-server"); }
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;

  std::string text() const { return tmux("capture-pane -p").out; }
  void type(const std::string& keys) const { EXPECT_EQ(0, tmux("send-keys " + keys).status); }
  bool shows(const std::string& piece) const { return showsInOrder({piece}); }
  bool showsInOrder(const std::vector<std::string>& pieces) const {
    return waitUntil([&] { return areInOrder(text(), pieces); });
  }
  bool lacks(const std::string& piece) const {
    return waitUntil([&] { return text().find(piece) == std::string::npos; });
  }
  bool hasEnded() const {
    return waitUntil([&] { return tmux("has-session").status != 0; });
  }

 private:
  static Ran tmux(const std::string& arguments) {
    return runShell("LC_ALL=C.UTF-8 TERM=xterm tmux -u -S /tmp/tmux " + arguments);
  }
};

TEST(ArmtopScreen, ShowsTheTableAndEndsWithQ) {
  const Server server(THREE_CLASSES);
  const TopScreen screen("--sort count" + server.option());
  EXPECT_TRUE(
      screen.showsInOrder({"armtop  127.0.0.1:", "sorted by count", "count v", "transfer"}));
  screen.type("q");
  EXPECT_TRUE(screen.hasEnded());
}

TEST(ArmtopScreen, KeysSortAndReverse) {
  const Server server(THREE_CLASSES);
  const TopScreen screen("--sort transaction" + server.option());
  EXPECT_TRUE(screen.showsInOrder({"letter", "order ", "transfer"}));
  screen.type("t '>'");
  EXPECT_TRUE(screen.showsInOrder({"sorted by count", "bank", "post", "shop"}));
  screen.type("r");
  EXPECT_TRUE(screen.showsInOrder({"count ^", "shop", "post", "bank"}));
  screen.type("Right Right");
  EXPECT_TRUE(screen.showsInOrder({"sorted by errors", "shop", "bank", "post"}));
  screen.type("Left '<' '<' '<'");
  EXPECT_TRUE(screen.showsInOrder({"sorted by application", "shop", "post", "bank"}));
  screen.type("'<'");
  EXPECT_TRUE(screen.shows("sorted by in-flight"));
}

TEST(ArmtopScreen, HelpListsTheKeysAndAnyKeyEndsIt) {
  const Server server(THREE_CLASSES);
  const TopScreen screen(server.option());
  EXPECT_TRUE(screen.shows("transfer"));
  for (const char* key : {"h", "'?'"}) {
    screen.type(key);
    EXPECT_TRUE(screen.showsInOrder({"sort by another column", "reverse the order", "this help"}));
    screen.type("x");
    EXPECT_TRUE(screen.shows("transfer"));
  }
}

TEST(ArmtopScreen, FilterIsTyped) {
  const Server server(THREE_CLASSES);
  const TopScreen screen(server.option());
  EXPECT_TRUE(screen.shows("transfer"));
  screen.type("/ x BSpace q");
  EXPECT_TRUE(screen.shows("only 'q_'"));
  EXPECT_TRUE(screen.lacks("transfer"));
  screen.type("BSpace l e t t Enter");
  EXPECT_TRUE(screen.showsInOrder({"only 'lett'", "letter"}));
  EXPECT_TRUE(screen.lacks("transfer"));
  screen.type("/ Escape");
  EXPECT_TRUE(screen.showsInOrder({"transfer", "letter"}));
}

TEST(ArmtopScreen, RatesAreThoseOfTheWindow) {
  Server server(classPage("shop", "order", 100, 0));
  const TopScreen screen(server.option());
  EXPECT_TRUE(screen.shows("last "));
  EXPECT_TRUE(waitUntil([&] {
    return wordsOfLine(screen.text(), {"shop", "order"}) ==
           std::vector<std::string>({"shop", "order", "0", "0", "-", "-", "-", "-", "4"});
  })) << screen.text();
  server.show(classPage("shop", "order", 150, 0));
  EXPECT_TRUE(waitUntil([&] {
    const auto words = wordsOfLine(screen.text(), {"shop", "order"});
    return words.size() > 3 && words[2] == "50" && words[3] != "0";
  })) << screen.text();
  screen.type("t");
  EXPECT_TRUE(screen.showsInOrder({"since the engine", "150"}));
}

TEST(ArmtopScreen, PauseKeepsTheTable) {
  Server server(classPage("shop", "order", 100, 0));
  const TopScreen screen(server.option());
  EXPECT_TRUE(screen.shows("shop"));
  screen.type("t p");
  EXPECT_TRUE(screen.shows("PAUSED"));
  server.show(classPage("bank", "transfer", 1, 0));
  // The next keys are taken after at least one more answer.
  EXPECT_TRUE(armtop("--once --window 0.3" + server.option()).status == 0);
  EXPECT_NE(std::string::npos, screen.text().find("shop"));
  screen.type("p");
  EXPECT_TRUE(screen.shows("bank"));
}

TEST(ArmtopScreen, LongTablesAreScrolled) {
  std::string page;
  for (int i = 100; i < 160; ++i) page += classPage("shop", "class" + std::to_string(i), 1, 0);
  const Server server(page);
  const TopScreen screen("--sort transaction" + server.option());
  EXPECT_TRUE(screen.showsInOrder({"class100", "class116"}));
  EXPECT_EQ(std::string::npos, screen.text().find("class117"));
  screen.type("Down Down");
  EXPECT_TRUE(screen.showsInOrder({"class102", "class118"}));
  EXPECT_TRUE(screen.lacks("class101"));
  screen.type("NPage NPage NPage NPage NPage");
  EXPECT_TRUE(screen.showsInOrder({"class143", "class159"}));
  screen.type("PPage");
  EXPECT_TRUE(screen.shows("class126"));
  screen.type("Home");
  EXPECT_TRUE(screen.shows("class100"));
}

TEST(ArmtopScreen, EngineThatGoesIsToldAndTheTableStays) {
  Server server(THREE_CLASSES);
  const TopScreen screen(server.option());
  EXPECT_TRUE(screen.shows("transfer"));
  server.stop();
  EXPECT_TRUE(screen.showsInOrder({"no answer from 127.0.0.1", "transfer"}));
}

TEST(ArmtopScreen, NamesOfEveryKindAreShownInTheirColumns) {
  const Server server(classPage("büro", "注文\\n\\\"x\\\"", 1, 0) +
                      classPage("a\x1b[2J", "b", 2, 0));
  const TopScreen screen("--sort application" + server.option());
  EXPECT_TRUE(screen.showsInOrder({"a?[2J", "büro", "注文?\"x\""})) << screen.text();
}

TEST(ArmtopScreen, UnknownTerminalIsOneSentence) {
  const Server server(THREE_CLASSES);
  const Ran ran = runShell("TERM=nosuch script -qec '" + builtProgram("armtop") + server.option() +
                           "' /dev/null");
  EXPECT_EQ(2, ran.status);
  EXPECT_EQ(1U, linesWith(ran.out, "the terminal 'nosuch' is not known: set TERM, or use --once"));
}

// ---- with an engine -----------------------------------------------------------------------------

TEST(ArmtopEngine, ShowsWhatArmrunHasMeasured) {
  EngineProcess engine({"--listen", "0"});
  const std::string line = engine.nextLine();
  const size_t url = line.find("http://");
  ASSERT_NE(std::string::npos, url) << line;
  const std::string option = " --engine " + line.substr(url);
  EXPECT_EQ(1U, linesWith(armtop("--once" + option).out, "No transaction yet."));
  const std::string measured = builtProgram("armrun") + " --app nightly --transaction ";
  for (const char* command : {"good -- true", "good -- true", "bad -- false"}) {
    (void)runShell(measured + command);
  }
  const std::string table = armtop("--once" + option).out;
  const auto good = wordsOfLine(table, {"nightly", "good"});
  ASSERT_GE(good.size(), 6U) << table;
  EXPECT_EQ((std::vector<std::string>{"2", "-", "0", "%"}),
            std::vector<std::string>(good.begin() + 2, good.begin() + 6));
  const auto bad = wordsOfLine(table, {"nightly", "bad"});
  ASSERT_GE(bad.size(), 6U) << table;
  EXPECT_EQ((std::vector<std::string>{"1", "-", "100", "%"}),
            std::vector<std::string>(bad.begin() + 2, bad.begin() + 6));
  EXPECT_EQ(1U, linesWith(table, "requesters "));
  const TopScreen screen("--sort errors" + option);
  EXPECT_TRUE(screen.shows("classes 2"));
  screen.type("t");
  EXPECT_TRUE(screen.showsInOrder({"since the engine", "bad", "good"}));
  screen.type("q");
  EXPECT_TRUE(screen.hasEnded());
  EXPECT_EQ(0, engine.end(SIGTERM));
}

}  // namespace
