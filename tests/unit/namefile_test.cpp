#include "platform/namefile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "files.h"

namespace armtest {
namespace {

TEST(NameFile, MissingFileIsMadeEmpty) {
  EXPECT_TRUE(ensureNameFile("/var/kelp/name"));
  struct stat info = {};
  ASSERT_EQ(0, stat("/var/kelp/name", &info));
  EXPECT_EQ(0, info.st_size);
}

TEST(NameFile, ExistingFileIsKeptAsItIs) {
  writeContent("/var/kelp/name", "text");
  EXPECT_TRUE(ensureNameFile("/var/kelp/name"));
  EXPECT_EQ("text", contentOf("/var/kelp/name"));
}

TEST(NameFile, FileThatCannotBeMadeIsRefusedWithItsErrno) {
  errno = 0;
  EXPECT_FALSE(ensureNameFile("/var/kelp/absent/name"));
  EXPECT_EQ(ENOENT, errno);
}

TEST(NameFile, NullPathIsRefused) {
  errno = 0;
  EXPECT_FALSE(ensureNameFile(nullptr));
  EXPECT_EQ(ENOENT, errno);
}

TEST(NameFile, StaysClosed) {
  const int before = openFiles();
  EXPECT_TRUE(ensureNameFile("/var/kelp/name"));
  EXPECT_TRUE(ensureNameFile("/var/kelp/name"));
  EXPECT_EQ(before, openFiles());
}

}  // namespace
}  // namespace armtest
