#include "diag/util2.h"

#include <cstdlib>
#include <cstring>

#include "diag/util1.h"

namespace {

constexpr int WORKING_SIZE = 4096;
constexpr std::size_t KEY_LENGTH = sizeof COMMON_LOGDIR_KEY - 1;

/// The first occurrence of the key that has no "#" directly before it.
const char* findKey(const char* text) {
  const char* found = std::strstr(text, COMMON_LOGDIR_KEY);
  // Deliberate (touching-hash): only a "#" touching the key comments it out, and a longer key that
  // ends in the key's text matches too.
  while (found != nullptr && found != text && found[-1] == '#') {
    found = std::strstr(found + 1, COMMON_LOGDIR_KEY);
  }
  return found;
}

/// Copies what fits, pads with zeros, and sets the last byte to zero in any case.
void copyBounded(char* dst, const char* source, std::size_t len) {
  std::strncpy(dst, source, len);
  dst[len - 1] = '\0';
}

}  // namespace

char* getLogFileSpec(char* dst, unsigned int len) {
  if (len == 0) return dst;
  char directory[WORKING_SIZE];
  findCommonLogDir(directory, WORKING_SIZE);
  copyBounded(dst, directory, len);
  appendBounded(dst, DEFAULT_LOG_FILE_NAME, len);
  return dst;
}

void findCommonLogDir(char* dst, int len) {
  if (getLogPropertiesCommonLogDir(LOG_PROPS_FS, dst, len) == 1) return;
  if (len > 0) copyBounded(dst, DEFAULT_LOGFILE_DIR, static_cast<std::size_t>(len));
}

int getLogPropertiesCommonLogDir(const char* path, char* dst, int len) {
  if (len < 1) return 0;
  unsigned int size = 0;
  if (fileExists(path, &size) == 0 || size < 1) return 0;
  char* text = nullptr;
  if (readFile(path, size, &text) == 0) return 0;
  const int found = parseLogProps(text, size, dst, len);
  std::free(text);
  // A key without a value gives the default directory, as if it were missing.
  if (found == 0 || dst[0] == '\0') return 0;
  if (std::strlen(dst) + 1 < static_cast<std::size_t>(len)) ensureEndsWithSlash(dst);
  appendBounded(dst, LOGDIR_TRAILER, static_cast<unsigned long>(len));
  return 1;
}

int parseLogProps(char* text, unsigned int, char* dst, int len) {
  const char* key = findKey(text);
  if (key == nullptr) return 0;
  // The key's characters and one separator, whatever that is; a key that ends the text has neither
  // a separator nor a value.
  const char* separator = key + KEY_LENGTH;
  if (len < 1) return 1;
  copyBounded(dst, *separator == '\0' ? separator : separator + 1, static_cast<std::size_t>(len));
  clipLine(dst);
  trimString(dst);
  return 1;
}
