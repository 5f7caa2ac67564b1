#include "program/Options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using armengine::CommandLine;

CommandLine parse(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size());
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  return armengine::parseCommandLine(static_cast<int>(pointers.size()), pointers.data());
}

TEST(Options, DefaultsServeHundredsOfThreads) {
  const CommandLine line = parse({});
  EXPECT_EQ("", line.error);
  EXPECT_FALSE(line.queues.prefix);
  EXPECT_GE(line.queues.requests, 1000);
  EXPECT_GE(line.queues.requesters, 1000);
  EXPECT_FALSE(line.report);
  EXPECT_FALSE(line.help);
}

TEST(Options, AllAreRead) {
  const CommandLine line =
      parse({"--prefix", "blue", "--requests", "65535", "--requesters=31998", "--report"});
  EXPECT_EQ("", line.error);
  EXPECT_EQ("blue", line.queues.prefix);
  EXPECT_EQ(65535, line.queues.requests);
  EXPECT_EQ(31998, line.queues.requesters);
  EXPECT_TRUE(line.report);
}

TEST(Options, EmptyPrefixIsAPrefix) {
  EXPECT_EQ("", parse({"--prefix="}).queues.prefix);
}

TEST(Options, HelpNamesEveryOption) {
  EXPECT_TRUE(parse({"--help"}).help);
  for (const char* option : {"--prefix", "--requests", "--requesters", "--report", "--help"}) {
    EXPECT_NE(std::string::npos, armengine::helpText().find(option));
  }
}

TEST(Options, BadNumbersAreRefused) {
  for (const char* option : {"--requests", "--requesters"}) {
    for (const char* value : {"0", "-1", "", "x", "3x", " 3", "1.5", "65536", "99999999999"}) {
      const std::string error = parse({option, value}).error;
      EXPECT_NE(std::string::npos, error.find(option)) << value;
      EXPECT_EQ(std::string::npos, error.find('\n'));
    }
  }
  EXPECT_NE("", parse({"--requesters", "31999"}).error);
}

TEST(Options, PrefixThatIsNoPartOfAFileNameIsRefused) {
  EXPECT_NE("", parse({"--prefix", "a/b"}).error);
  EXPECT_NE("", parse({"--prefix", std::string(94, 'x')}).error);
  EXPECT_EQ("", parse({"--prefix", std::string(93, 'x')}).error);
}

TEST(Options, MissingValuesAndUnknownArgumentsAreRefused) {
  for (const char* argument : {"--prefix", "--requests", "--requesters", "--reports", "-h", "x",
                               "--report=1", "--help=", "", "--"}) {
    EXPECT_NE("", parse({argument}).error) << argument;
  }
}

}  // namespace
