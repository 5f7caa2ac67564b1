#include "platform/namefile.h"

#include <cerrno>
#include <cstdio>

bool ensureNameFile(const char* path) {
  if (path == nullptr) {
    errno = ENOENT;
    return false;
  }
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) file = std::fopen(path, "we");
  if (file == nullptr) return false;
  (void)std::fclose(file);
  return true;
}
