#include "diag/util1.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "calls.h"
#include "files.h"

namespace armtest {
namespace {

constexpr const char* FILE = "/tmp/file";

/// What a function makes of a text.
std::string after(void (*function)(char*), std::string text) {
  text += std::string(8, '\0');
  function(text.data());
  return text.c_str();
}

// ---- files --------------------------------------------------------------------------------------

TEST(FileExists, StoresTheSize) {
  writeContent(FILE, "12345");
  unsigned int size = 0;
  EXPECT_EQ(1, fileExists(FILE, &size));
  EXPECT_EQ(5U, size);
}

TEST(FileExists, NeedsNoPlaceForTheSize) {
  writeContent(FILE, "12345");
  EXPECT_EQ(1, fileExists(FILE, nullptr));
}

TEST(FileExists, MissingFileStoresNothing) {
  unsigned int size = 7;
  EXPECT_EQ(0, fileExists(FILE, &size));
  EXPECT_EQ(7U, size);
}

TEST(FileExists, FileWithoutRightsExists) {
  writeContent(FILE, "12345");
  EXPECT_EQ(0, chmod(FILE, 0));
  EXPECT_EQ(1, fileExists(FILE, nullptr));
}

/// What readFile gives: the text with all its bytes, or "none".
std::string read(unsigned int size) {
  static char before;
  char* text = &before;
  const int result = readFile(FILE, size, &text);
  EXPECT_EQ(result == 1, text != nullptr);
  if (text == nullptr) return "none";
  EXPECT_EQ('\0', text[size]);
  std::string bytes(text, size);
  std::free(text);
  return bytes;
}

TEST(ReadFile, GivesTheWholeFile) {
  writeContent(FILE, "12345");
  EXPECT_EQ("12345", read(5));
}

TEST(ReadFile, GivesTheBeginningOfALongerFile) {
  writeContent(FILE, "12345");
  EXPECT_EQ("123", read(3));
}

TEST(ReadFile, GivesAnEmptyText) {
  writeContent(FILE, "");
  EXPECT_EQ("", read(0));
}

TEST(ReadFile, GivesZeroBytesToo) {
  writeContent(FILE, std::string("1\0\0"
                                 "4",
                                 4));
  EXPECT_EQ(std::string("1\0\0"
                        "4",
                        4),
            read(4));
}

TEST(ReadFile, RefusesAShorterFile) {
  writeContent(FILE, "12345");
  EXPECT_EQ("none", read(6));
}

TEST(ReadFile, RefusesAMissingFile) {
  EXPECT_EQ("none", read(5));
}

TEST(ReadFile, RefusesADirectory) {
  EXPECT_EQ(0, mkdir(FILE, 0755));
  EXPECT_EQ("none", read(5));
}

TEST(ReadFile, RefusesAFileWithoutRights) {
  writeContent(FILE, "12345");
  EXPECT_EQ(0, chmod(FILE, 0));
  EXPECT_EQ("none", read(5));
}

TEST(ReadFile, RefusesWhatCannotBeAllocated) {
  writeContent(FILE, "12345");
  calls::malloc.fail(nullptr, ENOMEM);
  const std::string text = read(5);
  calls::malloc.watch();
  EXPECT_EQ("none", text);
}

TEST(ReadFile, RefusesTheLargestSize) {
  writeContent(FILE, "12345");
  EXPECT_EQ("none", read(~0U));
}

TEST(ReadFile, AlwaysClosesTheFile) {
  writeContent(FILE, "12345");
  const int before = openFiles();
  EXPECT_EQ("12345", read(5));
  EXPECT_EQ("none", read(6));
  EXPECT_EQ(before, openFiles());
}

// ---- texts --------------------------------------------------------------------------------------

TEST(ClipLine, CutsAtTheFirstCarriageReturnOrLineFeed) {
  EXPECT_EQ("ab", after(clipLine, "ab\ncd"));
  EXPECT_EQ("ab", after(clipLine, "ab\r\ncd"));
  EXPECT_EQ("ab", after(clipLine, "ab\rcd\n"));
  EXPECT_EQ("", after(clipLine, "\nab"));
}

TEST(ClipLine, LeavesATextOfOneLineAlone) {
  EXPECT_EQ("ab", after(clipLine, "ab"));
  EXPECT_EQ("", after(clipLine, ""));
}

TEST(ClipLine, LeavesNullAlone) {
  clipLine(nullptr);
}

TEST(TrimString, RemovesBlanksEqualsSignsTabsAndLineEndsFromBothEnds) {
  EXPECT_EQ("ab", after(trimString, " =\t\r\nab \t=\n\r"));
}

TEST(TrimString, LeavesTheInsideAlone) {
  EXPECT_EQ("a = b", after(trimString, "a = b"));
}

TEST(TrimString, LeavesOtherWhiteSpaceAlone) {
  EXPECT_EQ("\vab\f", after(trimString, "\vab\f"));
}

TEST(TrimString, NothingRemainsOfATextToTrimWhole) {
  EXPECT_EQ("", after(trimString, " = \t="));
  EXPECT_EQ("", after(trimString, ""));
}

TEST(TrimString, KeepsASingleCharacter) {
  EXPECT_EQ("a", after(trimString, "=a="));
}

TEST(TrimString, LeavesNullAlone) {
  trimString(nullptr);
}

TEST(EnsureEndsWithSlash, AppendsAMissingSlash) {
  EXPECT_EQ("/a/", after(ensureEndsWithSlash, "/a"));
}

TEST(EnsureEndsWithSlash, AppendsNoSecondSlash) {
  EXPECT_EQ("/a/", after(ensureEndsWithSlash, "/a/"));
  EXPECT_EQ("/", after(ensureEndsWithSlash, "/"));
}

TEST(EnsureEndsWithSlash, LeavesAnEmptyTextAlone) {
  EXPECT_EQ("", after(ensureEndsWithSlash, ""));
  ensureEndsWithSlash(nullptr);
}

/// What appendBounded makes of "ab" and "cdef" in so many bytes; the byte behind stays.
std::string appended(unsigned long size) {
  char text[8] = "ab";
  text[7] = '?';
  appendBounded(text, "cdef", size);
  EXPECT_EQ('?', text[7]);
  return text;
}

TEST(AppendBounded, AppendsWhatFitsWithTheTerminator) {
  EXPECT_EQ("abcdef", appended(7));
  EXPECT_EQ("abcde", appended(6));
  EXPECT_EQ("abc", appended(4));
}

TEST(AppendBounded, AppendsNothingToAFullText) {
  EXPECT_EQ("ab", appended(3));
  EXPECT_EQ("ab", appended(1));
  EXPECT_EQ("ab", appended(0));
}

}  // namespace
}  // namespace armtest
