// The example programs, with and without an engine.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "ipcobjects.h"
#include "programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::wordsOfLine;

constexpr const char* TREE = "/tmp/tree";

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(TREE + ("/" + name), std::ios::binary) << content;
}

class ExamplesTest : public testing::Test {
 protected:
  /// Twelve files with 24 words and 151 bytes in all, and what is no file.
  void SetUp() override {
    ASSERT_EQ(0, mkdir(TREE, 0755));
    ASSERT_EQ(0, mkdir((std::string(TREE) + "/below").c_str(), 0755));
    ASSERT_EQ(0, symlink("/tmp", (std::string(TREE) + "/link").c_str()));
    writeFile("empty", "");
    writeFile("below/a name\nwith everything", "one  two\tthree\nfour");
    writeFile("binary", std::string("\x00\xFF \x0B\x0C\x01", 6));
    for (int i = 0; i < 9; ++i) writeFile("below/" + std::to_string(i), "two words    \n");
  }
  static Ran treewalk(const std::string& options = "") {
    return runShell(builtProgram("treewalk") + " " + options + " " + TREE);
  }
};

constexpr size_t FILES = 12;
constexpr const char* TOTALS = " 12 files, 24 words, 151 bytes, checksum ";

TEST_F(ExamplesTest, TreeIsReadWithoutAnEngineAndOneLineSaysSo) {
  const Ran ran = treewalk();
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ(1U, linesWith(ran.out, TOTALS)) << ran.out;
  EXPECT_EQ(1U, linesWith(ran.err, "")) << ran.err;
  EXPECT_EQ(0U, ran.err.find("treewalk: not being measured"));
}

TEST_F(ExamplesTest, ResultIsTheSameForEveryNumberOfWorkers) {
  const std::string expected = treewalk().out;
  for (const char* options : {"--workers 1", "--workers 7", "--workers 64"}) {
    EXPECT_EQ(expected, treewalk(options).out);
  }
}

/// Count, good, failed and aborted of a class, as the report's line has them.
std::vector<std::string> countsOf(const std::string& report, const std::string& application,
                                  const std::string& tran_class) {
  const auto words = wordsOfLine(report, {application, tran_class});
  const size_t first =
      2 + static_cast<size_t>(std::count(tran_class.begin(), tran_class.end(), ' ')) + 1;
  if (words.size() < first + 4) return {report};
  return {words.begin() + static_cast<long>(first), words.begin() + static_cast<long>(first) + 4};
}

TEST_F(ExamplesTest, ReportCountsTheFilesThatWereMade) {
  const std::string unmeasured = treewalk().out;
  EngineProcess engine;
  const Ran ran = treewalk("--workers 3");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ("", ran.err);
  EXPECT_EQ(unmeasured, ran.out);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const std::string bits = "(" + std::to_string(sizeof(void*) * 8) + "-bit)";
  for (const char* step : {"read a file", "count its words", "checksum it"}) {
    EXPECT_EQ((std::vector<std::string>{"12", "12", "0", "0"}),
              countsOf(engine.report(), "treewalk " + bits, step));
  }
  EXPECT_EQ((std::vector<std::string>{"1", "1", "0", "0"}),
            countsOf(engine.report(), "treewalk " + bits, "walk a tree"));
}

TEST_F(ExamplesTest, AllStepsAreChildrenOfTheWalk) {
  EngineProcess engine;
  EXPECT_EQ(0, treewalk().status);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(8U, linesWith(engine.report(), "|- ")) << engine.report();
  for (const char* step : {"read a file", "count its words", "checksum it"}) {
    EXPECT_GE(linesWith(engine.report(), std::string("|- ") + step + "  "), 2U) << engine.report();
  }
  EXPECT_EQ(1U, linesWith(engine.report(), "`- and " + std::to_string(3 * FILES - 8) + " more"));
  EXPECT_EQ(0U, linesWith(engine.report(), "never stopped"));
}

TEST_F(ExamplesTest, UnreadableFileIsAFailedTransaction) {
  ASSERT_EQ(0, chmod((std::string(TREE) + "/empty").c_str(), 0));
  EngineProcess engine;
  const Ran ran = treewalk();
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(1U, linesWith(ran.err, "1 files could not be read"));
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ((std::vector<std::string>{"12", "11", "1", "0"}),
            countsOf(engine.report(), "treewalk", "read a file"));
  EXPECT_EQ((std::vector<std::string>{"11", "11", "0", "0"}),
            countsOf(engine.report(), "treewalk", "count its words"));
}

TEST_F(ExamplesTest, CorrelatorOfAStrangerIsNoHindrance) {
  EngineProcess engine;
  const Ran ran = runShell("ARM_CORRELATOR=" + std::string(336, 'e') + " " +
                           builtProgram("treewalk") + " --worker </dev/null");
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ("0 0 0 0 0 0\n", ran.out);
  EXPECT_EQ(0, engine.end(SIGTERM));
}

TEST_F(ExamplesTest, BadArgumentsAreRefused) {
  for (const char* arguments :
       {"", "--workers 0 /tmp", "--workers 65 /tmp", "--workers 2x /tmp", "--what", "/tmp /tmp"}) {
    EXPECT_EQ(2, runShell(builtProgram("treewalk") + " " + arguments).status) << arguments;
  }
  EXPECT_EQ(1, runShell(builtProgram("treewalk") + " /tmp/missing").status);
}

TEST_F(ExamplesTest, HelloIsMeasuredWhenThereIsAnEngine) {
  const Ran alone = runShell(builtProgram("hello"));
  EXPECT_EQ(0, alone.status);
  EXPECT_EQ("Hello.\n", alone.out);
  EXPECT_EQ("hello: this was not measured\n", alone.err);
  EngineProcess engine;
  const Ran measured = runShell(builtProgram("hello"));
  EXPECT_EQ(0, measured.status);
  EXPECT_EQ("", measured.err);
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(engine.report(), "hello        greet                  1     1"));
}

TEST_F(ExamplesTest, DemoShowsTheTableOfBothPrograms) {
  const Ran ran = runShell("ARM_BUILD_I386=" ARM_BUILD_DIR " ARM_BUILD_AMD64=" ARM_BUILD_DIR
                           " sh " ARM_SOURCE_DIR "/examples/demo.sh " +
                           std::string(TREE));
  EXPECT_EQ(0, ran.status) << ran.err;
  EXPECT_EQ("", ran.err);
  EXPECT_EQ(3U, linesWith(ran.out, TOTALS)) << ran.out;
  const auto words = wordsOfLine(ran.out, {"treewalk", "read a file", "us"});
  ASSERT_GE(words.size(), 7U) << ran.out;
  EXPECT_EQ("24", words[5]);
  EXPECT_EQ(1U, linesWith(ran.out, "not being measured"));
  EXPECT_TRUE(armtest::nameFiles().empty());
}

}  // namespace
