#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace armtext {

/// Takes over the user's locale, by which the width of characters is known.  Call it first.
void useLocale();

/// Columns that a UTF-8 text takes in a terminal.
std::size_t columnsOf(const std::string& utf8);

/// A text for a terminal: control characters and broken UTF-8, which any program may have put
/// there, become '?', and what passes the limit (in columns, at least 4) is cut to end in "...".
std::string printable(const std::string& utf8, std::size_t limit);

/// A table with two blanks between its columns.  The first row is the heading.
class Table {
 public:
  /// align: one character for each column, 'l' or 'r'.
  explicit Table(std::string align) : align_(std::move(align)) {}

  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// The lines, each with a newline and without blanks at its end.
  ///   indent  before each line
  std::string text(const std::string& indent = "") const;

 private:
  std::string align_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace armtext
