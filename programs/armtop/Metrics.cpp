#include "armtop/Metrics.h"

#include <cctype>
#include <cstdlib>
#include <string_view>

namespace armtop {

namespace {

/// Reads one line from the left.
class Line {
 public:
  explicit Line(std::string_view text) : rest_(text) {}

  bool isAtEnd() const { return rest_.empty(); }

  void skipBlanks() {
    while (!rest_.empty() && (rest_.front() == ' ' || rest_.front() == '\t'))
      rest_.remove_prefix(1);
  }

  bool take(char expected) {
    if (rest_.empty() || rest_.front() != expected) return false;
    rest_.remove_prefix(1);
    return true;
  }

  /// A name of a metric or a label; empty when there is none.
  std::string takeName() {
    std::size_t length = 0;
    while (length < rest_.size() && isOfName(rest_[length], length == 0)) ++length;
    return cut(length);
  }

  /// What stands in quotation marks.
  bool takeQuoted(std::string* value) {
    if (!take('"')) return false;
    while (!rest_.empty()) {
      const char c = rest_.front();
      rest_.remove_prefix(1);
      if (c == '"') return true;
      if (c != '\\') {
        *value += c;
        continue;
      }
      if (rest_.empty()) return false;
      *value += rest_.front() == 'n' ? '\n' : rest_.front();
      rest_.remove_prefix(1);
    }
    return false;
  }

  std::string takeWord() {
    std::size_t length = 0;
    while (length < rest_.size() && rest_[length] != ' ' && rest_[length] != '\t') ++length;
    return cut(length);
  }

 private:
  static bool isOfName(char c, bool first) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '_' || c == ':' || (first ? std::isalpha(byte) : std::isalnum(byte)) != 0;
  }

  std::string cut(std::size_t length) {
    std::string text(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return text;
  }

  std::string_view rest_;
};

bool takeLabels(Line* line, std::map<std::string, std::string>* labels) {
  for (;;) {
    line->skipBlanks();
    if (line->take('}')) return true;
    const std::string name = line->takeName();
    std::string value;
    line->skipBlanks();
    if (name.empty() || !line->take('=')) return false;
    line->skipBlanks();
    if (!line->takeQuoted(&value)) return false;
    (*labels)[name] = std::move(value);
    line->skipBlanks();
    if (line->take('}')) return true;
    if (!line->take(',')) return false;
  }
}

/// Numbers of the format, "+Inf", "-Inf" and "NaN" among them.
bool parseNumber(const std::string& text, double* value) {
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0';
}

bool parseLine(std::string_view text, Sample* sample) {
  Line line(text);
  line.skipBlanks();
  sample->name = line.takeName();
  if (sample->name.empty()) return false;
  line.skipBlanks();
  if (line.take('{') && !takeLabels(&line, &sample->labels)) return false;
  line.skipBlanks();
  if (!parseNumber(line.takeWord(), &sample->value)) return false;
  line.skipBlanks();
  if (line.isAtEnd()) return true;
  double stamp = 0;
  if (!parseNumber(line.takeWord(), &stamp)) return false;
  line.skipBlanks();
  return line.isAtEnd();
}

bool isComment(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t\r");
  return first == std::string_view::npos || line[first] == '#';
}

}  // namespace

std::vector<Sample> parseMetrics(const std::string& text, unsigned* broken) {
  std::vector<Sample> samples;
  *broken = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (isComment(line)) continue;
    Sample sample;
    if (parseLine(line, &sample)) {
      samples.push_back(std::move(sample));
    } else {
      ++*broken;
    }
  }
  return samples;
}

}  // namespace armtop
