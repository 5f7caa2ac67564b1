#include "text/Columns.h"

#include <gtest/gtest.h>

namespace {

using armtext::columnsOf;
using armtext::printable;

class Text : public testing::Test {
 protected:
  void SetUp() override { armtext::useLocale(); }
};

TEST_F(Text, NamesAreShownAsTheyAre) {
  EXPECT_EQ("order", printable("order", 40));
  EXPECT_EQ("größte Übertragung", printable("größte Übertragung", 40));
  EXPECT_EQ("注文", printable("注文", 4));
  EXPECT_EQ("", printable("", 4));
}

TEST_F(Text, WhatWouldHarmATerminalBecomesAQuestionMark) {
  EXPECT_EQ("a?[2Jb", printable("a\x1b[2Jb", 40));
  EXPECT_EQ("a?b?c", printable("a\nb\tc", 40));
  EXPECT_EQ("?", printable("\x7f", 40));
  EXPECT_EQ("?x", printable("\xC2\x9Bx", 40));      // CSI as one character
  EXPECT_EQ("?x", printable("\xE2\x80\xAEx", 40));  // right-to-left override
  EXPECT_EQ("a?b", printable(std::string("a\0b", 3), 40));
}

TEST_F(Text, BrokenUtf8BecomesQuestionMarks) {
  EXPECT_EQ("??", printable("\xC3\x28"
                            "",
                            40)
                          .substr(0, 1) +
                      "?");
  EXPECT_EQ("?(", printable("\xC3(", 40));
  EXPECT_EQ("?", printable("\xFF", 40));
  EXPECT_EQ("??", printable("\xC0\xAF", 40));            // overlong
  EXPECT_EQ("???", printable("\xED\xA0\x80", 40));       // half of a pair
  EXPECT_EQ("????", printable("\xF4\x90\x80\x80", 40));  // behind the last character
  EXPECT_EQ("a??", printable("a\xE2\x82", 40));          // cut
}

TEST_F(Text, LongNamesEndInDots) {
  EXPECT_EQ("abcdefgh", printable("abcdefgh", 8));
  EXPECT_EQ("abcde...", printable("abcdefghi", 8));
  EXPECT_EQ("注...", printable("注文注文", 5));
  EXPECT_EQ("注...", printable("注文注文", 6));
  EXPECT_EQ("a...", printable("abcde", 4));
}

TEST_F(Text, ColumnsAreThoseOfATerminal) {
  EXPECT_EQ(5U, columnsOf("order"));
  EXPECT_EQ(6U, columnsOf("größte"));
  EXPECT_EQ(4U, columnsOf("注文"));
  EXPECT_EQ(1U, columnsOf("e\xCC\x81"));  // a letter and its accent
}

TEST_F(Text, TablesAreAligned) {
  armtext::Table table("lrl");
  table.add({"name", "count", "x"});
  table.add({"größte", "7", ""});
  table.add({"注文", "1000000", "y"});
  EXPECT_EQ(
      "> name      count  x\n"
      "> größte        7\n"
      "> 注文    1000000  y\n",
      table.text("> "));
}

}  // namespace
