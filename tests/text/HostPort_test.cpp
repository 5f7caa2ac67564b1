#include "text/HostPort.h"

#include <gtest/gtest.h>

namespace {

using armtext::parseHostPort;

TEST(HostPort, IsReadInEveryWriting) {
  for (const auto& [text, written] : {std::pair("127.0.0.1:9464", "127.0.0.1:9464"),
                                      {"9464", "127.0.0.1:9464"},
                                      {"0", "127.0.0.1:0"},
                                      {"host:65535", "host:65535"},
                                      {"[::1]:80", "[::1]:80"},
                                      {"[host]:1", "host:1"}}) {
    const auto address = parseHostPort(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(written, address->text());
  }
  EXPECT_EQ("::1", parseHostPort("[::1]:80")->host);
  EXPECT_EQ(80, parseHostPort("[::1]:80")->port);
}

TEST(HostPort, EverythingElseIsNone) {
  for (const char* text :
       {"", ":", ":80", "x", "host", "host:", "host:65536", "host:8x", "host:-1", "::1:80", "[]:80",
        "a b:80", "a/b:80", "http://host:80", "99999999999"}) {
    EXPECT_FALSE(parseHostPort(text)) << text;
  }
}

TEST(HostPort, HostIsFoundWithAndWithoutAPort) {
  EXPECT_EQ("localhost", armtext::hostOf("localhost"));
  EXPECT_EQ("localhost", armtext::hostOf("localhost:80"));
  EXPECT_EQ("::1", armtext::hostOf("[::1]:80"));
  EXPECT_EQ("::1", armtext::hostOf("[::1]"));
  EXPECT_EQ("", armtext::hostOf(""));
}

}  // namespace
