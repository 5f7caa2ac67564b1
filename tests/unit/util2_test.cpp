#include "diag/util2.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "files.h"
#include "tracefile.h"

namespace armtest {
namespace {

constexpr const char* DEFAULT_DIR = "/var/orv/kestra/common/QDN/logs/";

/// A result in a buffer of exactly `len` bytes, with a guard behind it.
template <typename Fill>
std::string filled(int len, Fill fill) {
  std::string buffer(static_cast<size_t>(len) + 1, '?');
  fill(buffer.data(), len);
  EXPECT_EQ('?', buffer.back());
  return buffer.c_str();
}

/// The log directory that a properties file of this content gives.
std::string dirFor(const std::string& content, int len = 4096) {
  writeContent(PROPERTIES_FILE, content);
  return filled(len, findCommonLogDir);
}

/// The value of the key in a text, "none" when it is not found.
std::string valueIn(std::string text, int len = 4096) {
  int found = 0;
  const std::string value = filled(len, [&](char* dst, int capacity) {
    dst[0] = '\0';
    found = parseLogProps(text.data(), static_cast<unsigned int>(text.size()), dst, capacity);
  });
  return found == 1 ? value : "none";
}

std::string traceFile(int len = 4096) {
  return filled(len, [](char* dst, int capacity) {
    EXPECT_EQ(dst, getLogFileSpec(dst, static_cast<unsigned int>(capacity)));
  });
}

// ---- the trace file's path ----------------------------------------------------------------------

TEST(LogLocation, WithoutAPropertiesFileTheDefaultHolds) {
  EXPECT_EQ("/var/orv/kestra/common/QDN/logs/trace-armdebug.log", traceFile());
}

TEST(LogLocation, TraceFileLiesInTheDirectoryOfTheProperties) {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/opt/common\n");
  EXPECT_EQ("/opt/common/QDN/logs/trace-armdebug.log", traceFile());
}

TEST(LogLocation, PathIsCutToOneByteLessThanItsRoom) {
  EXPECT_EQ("/var/orv/kestra/common/QDN/logs/trace-armdebug.lo", traceFile(50));
  EXPECT_EQ("/var/orv/kestra/common/QDN/logs", traceFile(32));
  EXPECT_EQ("/var/", traceFile(6));
}

TEST(LogLocation, PathInOneByteIsEmpty) {
  EXPECT_EQ("", traceFile(1));
}

TEST(LogLocation, NoRoomForThePathIsLeftAlone) {
  char dst[] = "?";
  EXPECT_EQ(dst, getLogFileSpec(dst, 0));
  EXPECT_STREQ("?", dst);
}

TEST(LogLocation, PathBehindAnOverlongDirectoryIsCut) {
  const std::string long_dir = "/" + std::string(4999, 'd');
  writeContent(PROPERTIES_FILE, "kestra_common_dir=" + long_dir);
  EXPECT_EQ(long_dir.substr(0, 4095), traceFile());
}

TEST(LogLocation, PropertiesAreReadAnewByEveryCall) {
  EXPECT_EQ(std::string(DEFAULT_DIR) + "trace-armdebug.log", traceFile());
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/a");
  EXPECT_EQ("/a/QDN/logs/trace-armdebug.log", traceFile());
}

TEST(LogLocation, NoDirectoryIsMade) {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/tmp/common");
  EXPECT_EQ("/tmp/common/QDN/logs/trace-armdebug.log", traceFile());
  EXPECT_FALSE(exists("/tmp/common"));
}

// ---- the directory ------------------------------------------------------------------------------

TEST(LogDirectory, EmptyFileGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor(""));
}

TEST(LogDirectory, FileWithoutTheKeyGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("other_dir=/a\n"));
}

TEST(LogDirectory, FileOfZeroBytesGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor(std::string(100, '\0')));
}

TEST(LogDirectory, KeyBehindAZeroByteIsNotSeen) {
  EXPECT_EQ(DEFAULT_DIR, dirFor(std::string("a\0kestra_common_dir=/a\n", 23)));
}

TEST(LogDirectory, FileWithoutRightsGivesTheDefault) {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/a\n");
  EXPECT_EQ(0, chmod(PROPERTIES_FILE, 0));
  EXPECT_EQ(DEFAULT_DIR, filled(4096, findCommonLogDir));
}

TEST(LogDirectory, DirectoryInPlaceOfTheFileGivesTheDefault) {
  EXPECT_EQ(0, mkdir(PROPERTIES_FILE, 0755));
  EXPECT_EQ(DEFAULT_DIR, filled(4096, findCommonLogDir));
}

TEST(LogDirectory, EmptyValueGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("kestra_common_dir=\nother=/a\n"));
}

TEST(LogDirectory, ValueOfBlanksAndEqualsSignsGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("kestra_common_dir = \t=\n"));
}

TEST(LogDirectory, KeyAtTheVeryEndOfTheFileGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("other=/a\nkestra_common_dir"));
}

TEST(LogDirectory, SeparatorAtTheVeryEndOfTheFileGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("kestra_common_dir="));
}

TEST(LogDirectory, KeyBehindAHashGivesTheDefault) {
  EXPECT_EQ(DEFAULT_DIR, dirFor("\n#kestra_common_dir=/a\n"));
}

TEST(LogDirectory, CommentedKeyIsPassedOver) {
  EXPECT_EQ("/b/QDN/logs/", dirFor("#kestra_common_dir=/a\nkestra_common_dir=/b\n"));
}

TEST(LogDirectory, BlanksAroundTheEqualsSignDoNotCount) {
  EXPECT_EQ("/opt/common/QDN/logs/", dirFor("kestra_common_dir = /opt/common \n"));
}

TEST(LogDirectory, ValueThatEndsInASlashGetsNoSecondOne) {
  EXPECT_EQ("/opt/common/QDN/logs/", dirFor("kestra_common_dir=/opt/common/\n"));
}

TEST(LogDirectory, ValueIsClippedAtTheCarriageReturn) {
  EXPECT_EQ("/opt/common/QDN/logs/", dirFor("kestra_common_dir=/opt/common\r\nother=1\r\n"));
}

TEST(LogDirectory, LastLineNeedsNoLineEnd) {
  EXPECT_EQ("/opt/common/QDN/logs/", dirFor("kestra_common_dir=/opt/common"));
}

TEST(LogDirectory, DirectoryIsCutToOneByteLessThanItsRoom) {
  EXPECT_EQ("/opt/common/QDN", dirFor("kestra_common_dir=/opt/common", 16));
  EXPECT_EQ("/opt/common/", dirFor("kestra_common_dir=/opt/common", 13));
  EXPECT_EQ("/opt/common", dirFor("kestra_common_dir=/opt/common", 12));
  EXPECT_EQ("/opt", dirFor("kestra_common_dir=/opt/common", 5));
}

TEST(LogDirectory, DefaultIsCutToOneByteLessThanItsRoom) {
  EXPECT_EQ("/var/orv", filled(9, findCommonLogDir));
  EXPECT_EQ("", filled(1, findCommonLogDir));
}

TEST(LogDirectory, ResultThatJustFitsIsWhole) {
  const std::string dir = "/" + std::string(4084, 'd');
  EXPECT_EQ(dir + "/QDN/logs/", dirFor("kestra_common_dir=" + dir + "\n"));
}

TEST(LogDirectory, ResultOneByteTooLongIsCut) {
  const std::string dir = "/" + std::string(4085, 'd');
  EXPECT_EQ(dir + "/QDN/logs", dirFor("kestra_common_dir=" + dir + "\n"));
}

TEST(LogDirectory, ValueOf5000CharactersIsCut) {
  const std::string dir = "/" + std::string(4999, 'd');
  EXPECT_EQ(dir.substr(0, 4095), dirFor("kestra_common_dir=" + dir + "\n"));
}

TEST(LogDirectory, FindingStoresNothingWithoutAFile) {
  char dst[] = "?";
  EXPECT_EQ(0, getLogPropertiesCommonLogDir("/tmp/absent", dst, 2));
  EXPECT_STREQ("?", dst);
}

TEST(LogDirectory, FindingTakesAnyFile) {
  writeContent("/tmp/properties", "kestra_common_dir=/a");
  char dst[64] = "";
  EXPECT_EQ(1, getLogPropertiesCommonLogDir("/tmp/properties", dst, sizeof dst));
  EXPECT_STREQ("/a/QDN/logs/", dst);
}

// ---- the value of the key -----------------------------------------------------------------------

TEST(ParseLogProps, ValueFollowsTheKeyAndOneSeparator) {
  EXPECT_EQ("/a", valueIn("kestra_common_dir=/a"));
}

TEST(ParseLogProps, AnyCharacterSeparates) {
  EXPECT_EQ("/a", valueIn("kestra_common_dir:/a"));
  EXPECT_EQ("/a", valueIn("kestra_common_dirX/a"));
  EXPECT_EQ("/a", valueIn("kestra_common_dir /a"));
}

TEST(ParseLogProps, LineEndSeparatesTooSoTheNextLineIsTheValue) {
  EXPECT_EQ("/next", valueIn("kestra_common_dir\n/next\n"));
}

TEST(ParseLogProps, FirstUsableKeyCounts) {
  EXPECT_EQ("/a", valueIn("kestra_common_dir=/a\nkestra_common_dir=/b\n"));
}

TEST(ParseLogProps, MissingKeyIsNotFound) {
  EXPECT_EQ("none", valueIn(""));
  EXPECT_EQ("none", valueIn("kestra_common=/a"));
  EXPECT_EQ("none", valueIn("KESTRA_COMMON_DIR=/a"));
}

TEST(ParseLogProps, HashDirectlyBeforeTheKeyCommentsItOut) {
  EXPECT_EQ("none", valueIn("#kestra_common_dir=/a\n"));
  EXPECT_EQ("/b", valueIn("#kestra_common_dir=/a\n#kestra_common_dir=/a\nkestra_common_dir=/b"));
}

TEST(ParseLogProps, HashAndABlankBeforeTheKeyAreNoComment) {
  EXPECT_EQ("/a", valueIn("# kestra_common_dir=/a\n"));
}

TEST(ParseLogProps, LongerKeyThatEndsInTheKeyMatches) {
  EXPECT_EQ("/a", valueIn("my_kestra_common_dir=/a\n"));
  EXPECT_EQ("/a", valueIn("#my_kestra_common_dir=/a\n"));
}

TEST(ParseLogProps, KeyInsideAnotherValueMatches) {
  EXPECT_EQ("/a", valueIn("other=kestra_common_dir=/a\n"));
}

TEST(ParseLogProps, KeyAtTheVeryEndHasAnEmptyValue) {
  EXPECT_EQ("", valueIn("kestra_common_dir"));
  EXPECT_EQ("", valueIn("kestra_common_dir="));
}

TEST(ParseLogProps, SizeIsNotUsed) {
  std::string text = "kestra_common_dir=/a";
  char dst[64] = "";
  EXPECT_EQ(1, parseLogProps(text.data(), 0, dst, sizeof dst));
  EXPECT_STREQ("/a", dst);
}

TEST(ParseLogProps, ValueOf5000CharactersIsCutToOneByteLessThanItsRoom) {
  const std::string value(5000, 'v');
  EXPECT_EQ(value.substr(0, 4095), valueIn("kestra_common_dir=" + value));
}

TEST(ParseLogProps, ValueIsCutBeforeItIsTrimmed) {
  EXPECT_EQ("/a", valueIn("kestra_common_dir=  /abc", 5));
}

TEST(ParseLogProps, ValueInOneByteIsEmpty) {
  EXPECT_EQ("", valueIn("kestra_common_dir=/a", 1));
}

TEST(ParseLogProps, NoRoomForTheValueIsLeftAlone) {
  std::string text = "kestra_common_dir=/a";
  char byte = '\0';
  EXPECT_EQ(1, parseLogProps(text.data(), 20, &byte, 0));
  EXPECT_EQ('\0', byte);
}

// ---- the whole of the caller's buffer -----------------------------------------------------------

using Bytes = std::string;

/// What a function leaves in a buffer of 'x', all its bytes.
template <typename Fill>
Bytes allBytes(int len, Fill fill) {
  Bytes buffer(static_cast<size_t>(len) + 1, 'x');
  fill(buffer.data(), len);
  EXPECT_EQ('x', buffer.back());
  buffer.pop_back();
  return buffer;
}

Bytes padded(const std::string& text, size_t size) {
  return text + Bytes(size - text.size(), '\0');
}

TEST(LogBuffers, PathIsPaddedWithZeros) {
  const auto fill = [](char* dst, int len) {
    (void)getLogFileSpec(dst, static_cast<unsigned int>(len));
  };
  EXPECT_EQ(padded("/var/orv/kestra/common/QDN/logs/trace-armdebug.log", 300), allBytes(300, fill));
  EXPECT_EQ(padded("/var/orv/kestra/common/QDN/logs/trace-armdebug.lo", 50), allBytes(50, fill));
  EXPECT_EQ(padded("/var/orv/kestra", 16), allBytes(16, fill));
}

TEST(LogBuffers, DefaultDirectoryIsPaddedWithZeros) {
  EXPECT_EQ(padded("/var/orv/kestra/common/QDN/logs/", 100), allBytes(100, findCommonLogDir));
  EXPECT_EQ(padded("/var/orv", 9), allBytes(9, findCommonLogDir));
}

TEST(LogBuffers, DirectoryOfTheFileIsPaddedWithZeros) {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/opt/common");
  EXPECT_EQ(padded("/opt/common/QDN/logs/", 100), allBytes(100, findCommonLogDir));
  EXPECT_EQ(padded("/opt/common/QDN", 16), allBytes(16, findCommonLogDir));
}

TEST(LogBuffers, LastByteBehindAFoundDirectoryIsZeroWhateverFollowsTheKey) {
  writeContent("/tmp/properties", "kestra_common_dir=/a\n" + std::string(5000, 'y'));
  const Bytes bytes = allBytes(100, [](char* dst, int len) {
    EXPECT_EQ(1, getLogPropertiesCommonLogDir("/tmp/properties", dst, len));
  });
  EXPECT_STREQ("/a/QDN/logs/", bytes.c_str());
  EXPECT_EQ('\0', bytes.back());
}

TEST(LogBuffers, ValueIsPaddedWithZeros) {
  std::string text = "kestra_common_dir=/a";
  EXPECT_EQ(padded("/a", 100), allBytes(100, [&](char* dst, int len) {
              EXPECT_EQ(1, parseLogProps(text.data(), 20, dst, len));
            }));
}

TEST(LogBuffers, LastByteBehindAValueIsZeroWhateverFollowsIt) {
  std::string text = "kestra_common_dir=/a\n" + std::string(5000, 'y');
  const Bytes bytes = allBytes(
      100, [&](char* dst, int len) { EXPECT_EQ(1, parseLogProps(text.data(), 5021, dst, len)); });
  EXPECT_STREQ("/a", bytes.c_str());
  EXPECT_EQ('\0', bytes.back());
}

TEST(LogBuffers, BufferIsLeftAloneWithoutADirectory) {
  writeContent("/tmp/properties", "other=/a\n");
  EXPECT_EQ(Bytes(100, 'x'), allBytes(100, [](char* dst, int len) {
              EXPECT_EQ(0, getLogPropertiesCommonLogDir("/tmp/properties", dst, len));
            }));
}

}  // namespace
}  // namespace armtest
