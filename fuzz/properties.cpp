// The properties file that names the log directory: its parser, and the way from the file to the
// trace file's path.  Every result is compared with a second reading of the same rules.

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "Check.h"
#include "Input.h"
#include "diag/util2.h"

namespace {

constexpr const char* FILE_PATH = "/etc/orv/kestra/common/cfg/log.properties";
constexpr const char* FALLBACK = "/var/orv/kestra/common/QDN/logs/";

std::string cut(const std::string& text, int capacity) {
  return text.substr(0, static_cast<std::size_t>(capacity - 1));
}

/// The value of the key in a text that ends at its first zero byte; false when there is none.
bool expectedValue(const std::string& whole, int capacity, std::string* value) {
  const std::string text = whole.substr(0, whole.find('\0'));
  const std::string key = "kestra_common_dir";
  std::size_t at = text.find(key);
  while (at != std::string::npos && at > 0 && text[at - 1] == '#') at = text.find(key, at + 1);
  if (at == std::string::npos) return false;
  const std::size_t start = at + key.size() + 1;
  std::string found = start <= text.size() ? cut(text.substr(start), capacity) : "";
  found = found.substr(0, found.find_first_of("\r\n"));
  const std::size_t first = found.find_first_not_of(" =\t\r\n");
  if (first == std::string::npos) {
    found = "";
  } else {
    found = found.substr(first, found.find_last_not_of(" =\t\r\n") - first + 1);
  }
  *value = found;
  return true;
}

bool expectedDirectory(const std::string& text, int capacity, std::string* directory) {
  if (text.empty() || !expectedValue(text, capacity, directory) || directory->empty()) return false;
  if (directory->back() != '/') *directory += '/';
  *directory = cut(*directory + "QDN/logs/", capacity);
  return true;
}

void writeFile(const std::string& text) {
  const int file = open(FILE_PATH, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  CHECK(file >= 0);
  CHECK(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  CHECK(close(file) == 0);
}

void parse(const std::string& text, int capacity) {
  Exact copy(text, true);
  Exact value(static_cast<std::size_t>(capacity));
  std::string expected;
  const bool found = expectedValue(text, capacity, &expected);
  CHECK(parseLogProps(copy.get(), static_cast<unsigned>(text.size()), value.get(), capacity) ==
        (found ? 1 : 0));
  if (found) CHECK(expected == value.get());
}

void findDirectory(const std::string& text, int capacity) {
  Exact directory(static_cast<std::size_t>(capacity));
  std::string expected;
  const bool found = expectedDirectory(text, capacity, &expected);
  CHECK(getLogPropertiesCommonLogDir(FILE_PATH, directory.get(), capacity) == (found ? 1 : 0));
  if (found) CHECK(expected == directory.get());
}

void findFile(const std::string& text, int capacity) {
  constexpr int WORKING_CAPACITY = 4096;
  Exact path(static_cast<std::size_t>(capacity));
  std::string expected;
  if (!expectedDirectory(text, WORKING_CAPACITY, &expected)) expected = FALLBACK;
  CHECK(getLogFileSpec(path.get(), static_cast<unsigned>(capacity)) == path.get());
  CHECK(cut(expected + "trace-armdebug.log", capacity) == path.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  const int capacity = 1 + static_cast<int>(input.half() % 5000);
  const std::string text = input.rest();
  parse(text, capacity);
  writeFile(text);
  findDirectory(text, capacity);
  findFile(text, capacity);
  return 0;
}
