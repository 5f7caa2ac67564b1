#include "text/Utf8.h"

#include <gtest/gtest.h>

namespace {

using armtext::characterLength;
using armtext::validUtf8;

TEST(Utf8, WellFormedTextStaysAsItIs) {
  const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x7F\x01";
  EXPECT_EQ(text, validUtf8(text));
  EXPECT_EQ("\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEE\x80\x80",
            validUtf8("\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEE\x80\x80"));
}

TEST(Utf8, BytesOfNoCharacterAreReplacedOneByOne) {
  EXPECT_EQ("a\xEF\xBF\xBD\x62", validUtf8("a\xFF\x62"));
  EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", validUtf8("\xE2\x82"));
  EXPECT_EQ("\xEF\xBF\xBDx", validUtf8("\xC3x"));
}

TEST(Utf8, TooLongFormsSurrogatesAndWhatLiesBeyondAreNoCharacters) {
  for (const char* text : {"\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                           "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\x80"}) {
    EXPECT_EQ(0U, characterLength(text)) << text;
  }
  EXPECT_EQ(0U, characterLength(""));
}

}  // namespace
