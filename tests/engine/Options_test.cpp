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
  EXPECT_FALSE(line.outputs.report);
  EXPECT_FALSE(line.help);
}

TEST(Options, AllAreRead) {
  const CommandLine line =
      parse({"--prefix", "blue", "--requests", "65535", "--requesters=31998", "--report"});
  EXPECT_EQ("", line.error);
  EXPECT_EQ("blue", line.queues.prefix);
  EXPECT_EQ(65535, line.queues.requests);
  EXPECT_EQ(31998, line.queues.requesters);
  EXPECT_TRUE(line.outputs.report);
}

TEST(Options, EmptyPrefixIsAPrefix) {
  EXPECT_EQ("", parse({"--prefix="}).queues.prefix);
}

TEST(Options, HelpNamesEveryOption) {
  EXPECT_TRUE(parse({"--help"}).help);
  for (const char* option :
       {"--prefix", "--requests", "--requesters", "--report", "--help", "--listen", "--events",
        "--otlp", "--otlp-file", "--sample", "--ignore", "--buckets", "--max-applications",
        "--max-classes", "--max-open", "--idle", "replay"}) {
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

TEST(Options, AddressesAreRead) {
  const auto of = [](const char* text) {
    const CommandLine line = parse({"--listen", text});
    EXPECT_EQ("", line.error) << text;
    return line.outputs.listen_address + "|" + std::to_string(line.outputs.listen_port);
  };
  EXPECT_EQ("127.0.0.1|9464", of("9464"));
  EXPECT_EQ("127.0.0.1|0", of("0"));
  EXPECT_EQ("0.0.0.0|80", of("0.0.0.0:80"));
  EXPECT_EQ("::1|65535", of("[::1]:65535"));
  EXPECT_EQ("localhost|1", of("localhost:1"));
  EXPECT_EQ("", parse({}).outputs.listen_address);
  for (const char* text : {"", ":", ":80", "x", "1.2.3.4", "::1:80", "a:65536", "a:-1", "a:"}) {
    EXPECT_NE("", parse({"--listen", text}).error) << text;
  }
}

TEST(Options, BucketsAreAscendingSeconds) {
  const CommandLine line = parse({"--buckets", "0.0001,0.5,10"});
  EXPECT_EQ((std::vector<uint64_t>{100000, 500000000, 10000000000}), line.registry.buckets);
  for (const char* text : {"", "x", "1,1", "2,1", "0", "-1", "1,", ",1", "1e9", "nan", "1 ,2"}) {
    EXPECT_NE("", parse({"--buckets", text}).error) << text;
  }
}

TEST(Options, StandardBucketsBeginAt100Microseconds) {
  const auto buckets = parse({}).registry.buckets;
  EXPECT_EQ(100000U, buckets.front());
  EXPECT_GE(buckets.back(), 60000000000U);
}

TEST(Options, RateIsFromZeroToOne) {
  EXPECT_EQ(0.25, parse({"--sample=0.25"}).registry.sample);
  EXPECT_EQ(0, parse({"--sample", "0"}).registry.sample);
  for (const char* text : {"", "-0.1", "1.1", "x", "nan", "0.5x"}) {
    EXPECT_NE("", parse({"--sample", text}).error) << text;
  }
}

TEST(Options, PatternsAreCollected) {
  const CommandLine line = parse({"--ignore", "a/*", "--ignore=b/c"});
  EXPECT_EQ((std::vector<std::string>{"a/*", "b/c"}), line.registry.ignore);
}

TEST(Options, LimitsAreRead) {
  const CommandLine line =
      parse({"--max-applications", "5", "--max-classes", "6", "--max-open", "7", "--idle", "0"});
  EXPECT_EQ("", line.error);
  EXPECT_EQ(5U, line.registry.most_applications);
  EXPECT_EQ(6U, line.registry.most_classes);
  EXPECT_EQ(7U, line.registry.most_open);
  EXPECT_EQ(0U, line.registry.idle_seconds);
  for (const char* option : {"--max-applications", "--max-classes", "--max-open"}) {
    EXPECT_NE("", parse({option, "0"}).error);
    EXPECT_NE("", parse({option, "x"}).error);
  }
  EXPECT_NE("", parse({"--idle", "-1"}).error);
}

TEST(Options, UrlsAreThoseOfHttp) {
  EXPECT_EQ("https://c:4318", parse({"--otlp", "https://c:4318"}).outputs.otlp);
  for (const char* text : {"", "c:4318", "ftp://c", "http://a b"}) {
    EXPECT_NE("", parse({"--otlp", text}).error) << text;
  }
  EXPECT_NE("", parse({"--otlp-file", ""}).error);
  EXPECT_NE("", parse({"--events", ""}).error);
}

TEST(Options, ReplayNeedsOneFile) {
  EXPECT_EQ("file", parse({"replay", "file"}).replay);
  EXPECT_NE("", parse({"replay"}).error);
  EXPECT_NE("", parse({"replay", "a", "b"}).error);
}

TEST(Options, OneOptionGivenTwiceIsRefused) {
  EXPECT_NE("", parse({"--requests", "1", "--requests", "2"}).error);
}

}  // namespace
