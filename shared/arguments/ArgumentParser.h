#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace armarguments {

/// Reads a value into its place.  What it returns stands behind the option's name in the sentence
/// that the user sees, as in "needs a number, not 'x'"; empty when the value is good.
using Read = std::function<std::string(const std::string& text)>;

/// A program's options, as CLI11 reads them.  Whatever is given to it must outlive it.
class ArgumentParser {
 public:
  /// usage stands at the top of the help, followed by what the program does.
  ArgumentParser(const std::string& program, const std::string& usage, const std::string& does);
  ~ArgumentParser();
  ArgumentParser(const ArgumentParser&) = delete;
  ArgumentParser& operator=(const ArgumentParser&) = delete;

  /// An option that is given at most once, with a value, which the help calls by this name.
  void option(const std::string& name, const std::string& value, const std::string& help,
              const Read& read);
  /// The same, given any number of times.
  void repeated(const std::string& name, const std::string& value, const std::string& help,
                const Read& read);
  /// The same, given at most once; without a value it has this one.
  void optional(const std::string& name, const std::string& value, const std::string& help,
                const std::string& otherwise, const Read& read);
  void flag(const std::string& name, const std::string& help, bool* given);
  /// A word of its own, such as a file, that must be given.
  void word(const std::string& name, const std::string& help, std::string* text);
  /// A word that chooses something else to do; what is declared for it follows the word.
  ArgumentParser& subcommand(const std::string& name, const std::string& help, bool* given);
  /// The last lines of the help, as they stand.
  void footer(const std::string& lines);

  /// Reads the arguments, without the program's name.  Returns one sentence, empty when all is
  /// well.
  std::string parse(int count, const char* const* arguments);
  std::string help() const;

 private:
  class App;

  explicit ArgumentParser(std::unique_ptr<App> app);

  std::unique_ptr<App> app_;
};

/// A number like 0.25 within bounds.
Read numberInto(double* number, double smallest, double largest);

/// A whole number within bounds.
template <typename Number>
Read wholeNumberInto(Number* number, uint64_t smallest, uint64_t largest);

/// Any text but the empty one.
Read someTextInto(std::string* text);

/// What is wrong with a whole number; empty when it is within its bounds.
std::string readWholeNumber(const std::string& text, uint64_t smallest, uint64_t largest,
                            uint64_t* number);

template <typename Number>
Read wholeNumberInto(Number* number, uint64_t smallest, uint64_t largest) {
  return [=](const std::string& text) {
    uint64_t read = 0;
    std::string wrong = readWholeNumber(text, smallest, largest, &read);
    if (wrong.empty()) *number = static_cast<Number>(read);
    return wrong;
  };
}

}  // namespace armarguments
