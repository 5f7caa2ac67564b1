#include "text/Hex.h"

#include <gtest/gtest.h>

namespace {

using armtext::bytesOfHex;
using armtext::hexText;

TEST(Hex, EachByteIsTwoLowerCaseDigitsAndComesBack) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  const std::string text = hexText(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  EXPECT_EQ(512U, text.size());
  EXPECT_EQ("000102", text.substr(0, 6));
  EXPECT_EQ("a8", text.substr(0x150, 2));
  EXPECT_EQ("ff", text.substr(510));
  EXPECT_EQ(bytes, bytesOfHex(text));
}

TEST(Hex, IsAddedAtTheEnd) {
  std::string text = "x";
  const uint8_t bytes[] = {0x0A, 0xB1};
  armtext::appendHex(&text, bytes, 2);
  armtext::appendHex(&text, bytes, 0);
  EXPECT_EQ("x0ab1", text);
}

TEST(Hex, DigitsOfBothCasesAreRead) {
  EXPECT_EQ("\xAB\xCD", bytesOfHex("aBCd"));
  EXPECT_EQ("", bytesOfHex(""));
}

TEST(Hex, TextThatIsNotHexadecimalIsRefused) {
  for (const char* text : {"a", "abc", "0g", " 0", "0x", "-1"}) {
    EXPECT_FALSE(bytesOfHex(text)) << text;
  }
}

}  // namespace
