#include "platform/callermemory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "calls.h"
#include "files.h"

namespace armtest {
namespace {

/// One page of memory with the given rights, 'x' in its first byte.
class Page {
 public:
  explicit Page(int rights)
      : start_(static_cast<char*>(
            mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    *start_ = 'x';
    EXPECT_EQ(0, mprotect(start_, SIZE, rights));
  }
  ~Page() { munmap(start_, SIZE); }
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  char* start() const { return start_; }

 private:
  static constexpr size_t SIZE = 4096;
  char* start_;
};

TEST(CallerMemory, OneWritableByteIsCleared) {
  char text[] = "abc";
  EXPECT_TRUE(clearCallerByte(text + 1));
  EXPECT_EQ('a', text[0]);
  EXPECT_EQ('\0', text[1]);
  EXPECT_EQ('c', text[2]);
}

TEST(CallerMemory, ReadOnlyByteIsLeftAlone) {
  const Page page(PROT_READ);
  EXPECT_FALSE(clearCallerByte(page.start()));
  EXPECT_EQ('x', *page.start());
}

TEST(CallerMemory, ByteWithoutRightsIsLeftAlone) {
  const Page page(PROT_NONE);
  EXPECT_FALSE(clearCallerByte(page.start()));
}

TEST(CallerMemory, NoFilesStayOpen) {
  const Page page(PROT_READ);
  char byte = 'x';
  const int before = openFiles();
  EXPECT_TRUE(clearCallerByte(&byte));
  EXPECT_FALSE(clearCallerByte(page.start()));
  EXPECT_EQ(before, openFiles());
}

TEST(CallerMemory, WithoutAPipeNothingIsTouched) {
  char byte = 'x';
  calls::pipe2.fail(-1, EMFILE);
  EXPECT_FALSE(clearCallerByte(&byte));
  EXPECT_EQ('x', byte);
}

}  // namespace
}  // namespace armtest
