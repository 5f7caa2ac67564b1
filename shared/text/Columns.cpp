#include "text/Columns.h"

#include <wchar.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <string_view>

#include "text/Utf8.h"

namespace armtext {

namespace {

constexpr const char* ELLIPSIS = "...";
constexpr std::size_t ELLIPSIS_COLUMNS = 3;

struct Character {
  std::size_t bytes = 1;
  std::size_t columns = 1;
  bool printable = false;
};

/// The number of a well-formed character.
uint32_t codeOf(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first;
  uint32_t code = first & (0x7FU >> character.size());
  for (const char next : character.substr(1)) {
    code = code << 6 | (static_cast<unsigned char>(next) & 0x3FU);
  }
  return code;
}

Character characterAt(std::string_view utf8, std::size_t at) {
  Character one;
  const std::size_t bytes = characterLength(utf8.substr(at));
  if (bytes == 0) return one;
  const uint32_t code = codeOf(utf8.substr(at, bytes));
  one.bytes = bytes;
  const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
  // A locale without such characters knows no width of them.
  const int width = bytes == 1 ? 1 : wcwidth(static_cast<wchar_t>(code));
  one.columns = width >= 0 ? static_cast<std::size_t>(width) : 1;
  // Marks that turn the direction of writing would rearrange the rest of the line.
  const bool turns = (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
                     (code >= 0x2066 && code <= 0x2069);
  one.printable = !control && !turns;
  if (!one.printable) one.columns = 1;
  return one;
}

}  // namespace

void useLocale() {
  const char* locale = std::setlocale(LC_ALL, "");
  // Output stays UTF-8 in the locale of machines that were given none.
  if (locale == nullptr || std::string(locale) == "C" || std::string(locale) == "POSIX") {
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
  }
  (void)std::setlocale(LC_NUMERIC, "C");
}

std::size_t columnsOf(const std::string& utf8) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < utf8.size();) {
    const Character one = characterAt(utf8, at);
    columns += one.columns;
    at += one.bytes;
  }
  return columns;
}

std::string printable(const std::string& utf8, std::size_t limit) {
  std::string text;
  std::size_t columns = 0;
  std::size_t room_for_ellipsis = 0;  // bytes of the text that leave room for it
  for (std::size_t at = 0; at < utf8.size();) {
    const Character one = characterAt(utf8, at);
    if (columns + one.columns > limit) return text.substr(0, room_for_ellipsis) + ELLIPSIS;
    text += one.printable ? utf8.substr(at, one.bytes) : "?";
    columns += one.columns;
    at += one.bytes;
    if (columns + ELLIPSIS_COLUMNS <= limit) room_for_ellipsis = text.size();
  }
  return text;
}

std::string Table::text(const std::string& indent) const {
  std::vector<std::size_t> widths(align_.size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], columnsOf(row[i]));
    }
  }
  std::string text;
  for (const auto& row : rows_) {
    std::string line = indent;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - columnsOf(row[i]), ' ');
      if (i > 0) line += "  ";
      line += align_[i] == 'r' ? padding + row[i] : row[i] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

}  // namespace armtext
