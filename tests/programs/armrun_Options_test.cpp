#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "armrun/Options.h"

namespace {

struct Line {
  explicit Line(std::vector<std::string> given) : words(std::move(given)) {
    words.insert(words.begin(), "armrun");
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    options = armrun::parseOptions(static_cast<int>(words.size()), pointers.data());
  }
  std::vector<std::string> words;
  std::vector<char*> pointers;
  armrun::Options options;
};

std::vector<std::string> commandOf(const armrun::Options& options) {
  std::vector<std::string> command;
  for (char** word = options.command; *word != nullptr; ++word) command.emplace_back(*word);
  return command;
}

TEST(ArmrunOptions, AllAreTaken) {
  const Line line({"--app", "shop", "--transaction=order", "--detail", "a b", "--wait", "0.25",
                   "--verbose", "--", "ls", "-l"});
  EXPECT_EQ("", line.options.error);
  EXPECT_EQ("shop", line.options.application);
  EXPECT_EQ("order", line.options.transaction);
  EXPECT_EQ("a b", line.options.detail);
  EXPECT_EQ(250, line.options.wait.count());
  EXPECT_TRUE(line.options.verbose);
  EXPECT_EQ((std::vector<std::string>{"ls", "-l"}), commandOf(line.options));
}

TEST(ArmrunOptions, WhatFollowsTheCommandIsItsOwn) {
  const Line line({"--app", "a", "--transaction", "t", "ls", "--app", "--", "--help"});
  EXPECT_EQ("", line.options.error);
  EXPECT_EQ("a", line.options.application);
  EXPECT_FALSE(line.options.help);
  EXPECT_EQ((std::vector<std::string>{"ls", "--app", "--", "--help"}), commandOf(line.options));
}

TEST(ArmrunOptions, LongestNamesAreAllowedAndLongerOnesAreNot) {
  const auto with = [](std::size_t app, std::size_t transaction, std::size_t detail) {
    return Line({"--app", std::string(app, 'a'), "--transaction", std::string(transaction, 't'),
                 "--detail", std::string(detail, 'd'), "ls"})
        .options.error;
  };
  EXPECT_EQ("", with(127, 3619, 127));
  EXPECT_EQ("--app is too long: use at most 127 bytes", with(128, 1, 0));
  EXPECT_EQ("--transaction is too long: use at most 3619 bytes", with(1, 3620, 0));
  EXPECT_EQ("--detail is too long: use at most 127 bytes", with(1, 1, 128));
}

TEST(ArmrunOptions, EveryFaultIsNamed) {
  const auto error = [](const std::vector<std::string>& words) {
    return Line(words).options.error;
  };
  EXPECT_EQ("say which application this belongs to: --app NAME", error({"ls"}));
  EXPECT_EQ("say what the transaction is called: --transaction NAME", error({"--app", "a", "ls"}));
  EXPECT_EQ("say which command to run: armrun OPTIONS -- COMMAND",
            error({"--app", "a", "--transaction", "t", "--"}));
  EXPECT_EQ("unknown option '--what': see armrun --help", error({"--what"}));
  EXPECT_EQ("--app needs a value: see armrun --help", error({"--app"}));
  for (const char* wait : {"x", "", "-1", "1s", "3601", "nan"}) {
    EXPECT_EQ(std::string("--wait needs a number of seconds from 0 to 3600, not '") + wait + "'",
              error({"--wait", wait, "ls"}));
  }
}

}  // namespace
