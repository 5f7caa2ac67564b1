#include "common/Text.h"

#include <wchar.h>

#include <algorithm>
#include <clocale>
#include <cstdint>

namespace armtools {

namespace {

constexpr const char* ELLIPSIS = "...";
constexpr std::size_t ELLIPSIS_COLUMNS = 3;

struct Character {
  std::size_t bytes = 1;
  std::size_t columns = 1;
  bool printable = false;
};

/// Bytes of the UTF-8 character that begins with this byte, 0 when none does.
std::size_t lengthBy(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

bool isScalar(uint32_t code, std::size_t bytes) {
  constexpr uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
  return code >= SMALLEST[bytes] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

Character characterAt(const std::string& utf8, std::size_t at) {
  Character one;
  const auto first = static_cast<unsigned char>(utf8[at]);
  const std::size_t bytes = lengthBy(first);
  if (bytes == 0 || at + bytes > utf8.size()) return one;
  uint32_t code = bytes == 1 ? first : first & (0x7FU >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<unsigned char>(utf8[at + i]);
    if ((next & 0xC0) != 0x80) return one;
    code = code << 6 | (next & 0x3F);
  }
  if (!isScalar(code, bytes)) return one;
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

std::string counted(unsigned long number, const std::string& singular) {
  const bool hisses = !singular.empty() && singular.back() == 's';
  return std::to_string(number) + " " + singular + (number == 1 ? "" : hisses ? "es" : "s");
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

}  // namespace armtools
