// The C++ example, with and without an engine.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "../engine/programs.h"

namespace {

using armtest::builtProgram;
using armtest::EngineProcess;
using armtest::linesWith;
using armtest::Ran;
using armtest::runShell;
using armtest::wordsOfLine;

const std::string TREE = "/tmp/tree";

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(TREE + "/" + name, std::ios::binary) << content;
}

class Duplicates : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir(TREE.c_str(), 0755));
    ASSERT_EQ(0, mkdir((TREE + "/below").c_str(), 0755));
    writeFile("a", std::string(100000, 'x'));
    writeFile("below/b", std::string(100000, 'x'));
    writeFile("c", std::string(99999, 'x') + "y");
    writeFile("empty", "");
    writeFile("also empty", "");
  }
  static Ran duplicates() { return runShell(builtProgram("duplicates") + " " + TREE); }
};

constexpr const char* FOUND = "/tmp/tree/a = /tmp/tree/below/b\n5 files, 1 duplicates\n";

TEST_F(Duplicates, WorkIsDoneWithoutAnEngineAndOneLineSaysSo) {
  const Ran ran = duplicates();
  EXPECT_EQ(0, ran.status);
  EXPECT_EQ(FOUND, ran.out);
  EXPECT_EQ("duplicates: this was not measured\n", ran.err);
}

TEST_F(Duplicates, FilesAreChildrenOfTheSearch) {
  EngineProcess engine;
  const Ran ran = duplicates();
  EXPECT_EQ(FOUND, ran.out);
  EXPECT_EQ("", ran.err);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto words = wordsOfLine(engine.report(), {"duplicates", "hash a file"});
  ASSERT_GE(words.size(), 8U) << engine.report();
  EXPECT_EQ((std::vector<std::string>{"5", "5", "0", "0"}),
            std::vector<std::string>(words.begin() + 4, words.begin() + 8));
  EXPECT_EQ(5U, linesWith(engine.report(), "- hash a file")) << engine.report();
  EXPECT_EQ(1U, linesWith(engine.report(), "- compare two files")) << engine.report();
}

TEST_F(Duplicates, FileThatCannotBeReadIsAFailedTransaction) {
  ASSERT_EQ(0, chmod((TREE + "/c").c_str(), 0));
  EngineProcess engine;
  const Ran ran = duplicates();
  EXPECT_EQ(FOUND, ran.out);
  EXPECT_EQ("duplicates: cannot read /tmp/tree/c\n", ran.err);
  EXPECT_EQ(0, engine.end(SIGTERM));
  const auto words = wordsOfLine(engine.report(), {"duplicates", "hash a file"});
  ASSERT_GE(words.size(), 8U) << engine.report();
  EXPECT_EQ((std::vector<std::string>{"5", "4", "1", "0"}),
            std::vector<std::string>(words.begin() + 4, words.begin() + 8));
}

TEST_F(Duplicates, DirectoryThatIsMissingIsAnError) {
  const Ran ran = runShell(builtProgram("duplicates") + " /tmp/missing");
  EXPECT_EQ(1, ran.status);
  EXPECT_EQ(1U, linesWith(ran.err, "duplicates: "));
  EXPECT_EQ(2, runShell(builtProgram("duplicates")).status);
}

}  // namespace
