#include "arguments/ArgumentParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using armarguments::ArgumentParser;
using armarguments::numberInto;
using armarguments::someTextInto;
using armarguments::wholeNumberInto;

const std::string ADVICE = ": see tool --help";

/// A program with an option of each kind.
struct Line {
  explicit Line(const std::vector<const char*>& arguments) {
    parser.option("--name", "TEXT", "a name", someTextInto(&name));
    parser.option("--count", "N", "a count", wholeNumberInto(&count, 1, 300));
    parser.repeated("--each", "TEXT", "one of many", [this](const std::string& text) {
      each.push_back(text);
      return "";
    });
    parser.optional("--pause", "[SECONDS]", "a pause", "2", numberInto(&pause, 0.5, 60));
    parser.flag("--loud", "more words", &loud);
    ArgumentParser& copy = parser.subcommand("copy", "copies", &is_copy);
    copy.word("FILE", "what is copied", &file);
    copy.flag("--twice", "two copies", &twice);
    parser.footer("Exit status: 0.");
    error = parser.parse(static_cast<int>(arguments.size()), arguments.data());
  }

  ArgumentParser parser = {"tool", "usage: tool [OPTION]...", "Does what is to be done."};
  std::string name;
  unsigned short count = 0;
  std::vector<std::string> each;
  double pause = 0;
  bool loud = false;
  bool is_copy = false;
  bool twice = false;
  std::string file;
  std::string error;
};

TEST(ArgumentParser, ReadsOptionsOfEveryKind) {
  const Line line(
      {"--name", "x", "--count=300", "--each", "a", "--each=b", "--pause", "0.5", "--loud"});
  EXPECT_EQ("", line.error);
  EXPECT_EQ("x", line.name);
  EXPECT_EQ(300, line.count);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), line.each);
  EXPECT_EQ(0.5, line.pause);
  EXPECT_TRUE(line.loud);
  EXPECT_FALSE(line.is_copy);
}

TEST(ArgumentParser, OptionWhoseValueIsMissingHasItsOwn) {
  EXPECT_EQ(0, Line({}).pause);
  EXPECT_EQ(2, Line({"--pause"}).pause);
  EXPECT_EQ(2, Line({"--pause", "--loud"}).pause);
}

TEST(ArgumentParser, SubcommandHasItsOwnOptionsAndTheProgramsBehindIt) {
  const Line line({"copy", "--twice", "file", "--loud"});
  EXPECT_EQ("", line.error);
  EXPECT_TRUE(line.is_copy && line.twice && line.loud);
  EXPECT_EQ("file", line.file);
  EXPECT_NE("", Line({"--twice"}).error);
  EXPECT_NE("", Line({"copy"}).error);
  EXPECT_NE("", Line({"copy", "a", "b"}).error);
}

TEST(ArgumentParser, BadValuesAreOneSentence) {
  EXPECT_EQ("--count needs a number from 1 to 300, not '0'", Line({"--count", "0"}).error);
  EXPECT_EQ("--count needs a number from 1 to 300, not '301'", Line({"--count=301"}).error);
  EXPECT_EQ("--pause needs a number from 0.5 to 60, not 'nan'", Line({"--pause", "nan"}).error);
  EXPECT_EQ("--pause needs a number from 0.5 to 60, not '-1'", Line({"--pause=-1"}).error);
  EXPECT_EQ("--name needs a value that is not empty", Line({"--name="}).error);
  EXPECT_EQ("--name needs a value that is not empty", Line({"--name", ""}).error);
}

TEST(ArgumentParser, WhatIsNoOptionLeadsToTheHelp) {
  for (const char* argument : {"--what", "word", "-l", "", "--", "++", "--loud=1", "--name"}) {
    const std::string error = Line({argument}).error;
    EXPECT_EQ(error.size() - ADVICE.size(), error.find(ADVICE)) << argument << ": " << error;
    EXPECT_EQ(std::string::npos, error.find('\n')) << argument;
  }
  EXPECT_NE("", Line({"--name", "a", "--name", "b"}).error);
}

TEST(ArgumentParser, HelpHasEverythingInEightyColumns) {
  const Line line({});
  EXPECT_EQ(
      "usage: tool [OPTION]...\n"
      "Does what is to be done.\n"
      "\n"
      "Options:\n"
      "  --name TEXT            a name\n"
      "  --count N              a count\n"
      "  --each TEXT            one of many\n"
      "  --pause [SECONDS]      a pause\n"
      "  --loud                 more words\n"
      "\n"
      "Subcommands:\n"
      "  copy                   copies\n"
      "    FILE                 what is copied\n"
      "    --twice              two copies\n"
      "\n"
      "Exit status: 0.\n",
      line.parser.help());
}

}  // namespace
