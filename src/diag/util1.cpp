#include "diag/util1.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

CPatience VPatience(LEASE_MILLISECONDS);

bool readWhole(const char* path, char* buffer, unsigned int size) {
  const int file = openPatiently(path, O_RDONLY | O_NOCTTY | O_CLOEXEC, 0, VPatience);
  if (file < 0) return false;
  const ssize_t count = read(file, buffer, size);
  (void)close(file);
  return count >= 0 && static_cast<std::size_t>(count) >= size;
}

}  // namespace

int openPatiently(const char* path, int flags, mode_t mode, CPatience& patience) {
  int file = -1;
  (void)patience.Until([&] {
    // Never blocks: a lease is waited for here, and a pipe in the file's place not at all.
    file = open(path, flags | O_NONBLOCK, mode);
    return file >= 0 || errno != EWOULDBLOCK;
  });
  return file;
}

int fileExists(const char* path, unsigned int* size) {
  struct stat info = {};
  if (stat(path, &info) != 0) return 0;
  if (size != nullptr) *size = static_cast<unsigned int>(info.st_size);
  return 1;
}

int readFile(const char* path, unsigned int size, char** text) {
  *text = nullptr;
  if (size == ~0U) return 0;
  auto* buffer = static_cast<char*>(std::malloc(static_cast<std::size_t>(size) + 1));
  if (buffer == nullptr) return 0;
  if (!readWhole(path, buffer, size)) {
    std::free(buffer);
    return 0;
  }
  buffer[size] = '\0';
  *text = buffer;
  return 1;
}

void clipLine(char* s) {
  if (s != nullptr) s[std::strcspn(s, EOL_CHARS)] = '\0';
}

void trimString(char* s) {
  if (s == nullptr) return;
  const std::size_t leading = std::strspn(s, _TRIM_CHARS);
  std::size_t length = std::strlen(s) - leading;
  std::memmove(s, s + leading, length + 1);
  while (length > 1 && std::strchr(_TRIM_CHARS, s[length - 1]) != nullptr) s[--length] = '\0';
}

void ensureEndsWithSlash(char* s) {
  if (s == nullptr || s[0] == '\0') return;
  const std::size_t length = std::strlen(s);
  if (s[length - 1] != '/') std::memcpy(s + length, "/", 2);
}

void appendBounded(char* dst, const char* source, unsigned long size) {
  const std::size_t length = std::strlen(dst);
  if (size == 0 || length >= size - 1) return;
  const std::size_t count = strnlen(source, size - 1 - length);
  std::memcpy(dst + length, source, count);
  dst[length + count] = '\0';
}
