#include "arguments/ArgumentParser.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace armarguments {

namespace {

/// A value that cannot be; its text is the sentence that the user sees.
class BadValue : public CLI::ParseError {
 public:
  explicit BadValue(const std::string& sentence) : CLI::ParseError("BadValue", sentence, 2) {}
};

/// The text broken into lines, all but the first indented.
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent) {
  std::string lines;
  std::size_t column = 0;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (column > 0 && column + 1 + word.size() > width) {
      lines += "\n" + std::string(indent, ' ');
      column = 0;
    }
    if (column > 0) lines += ' ';
    lines += word;
    column += (column > 0 ? 1 : 0) + word.size();
  }
  return lines;
}

/// Help as wide as a terminal.
class HelpLines : public CLI::Formatter {
 public:
  explicit HelpLines(std::string usage) : usage_(std::move(usage)) {}

  std::string make_option(const CLI::Option* option, bool) const override {
    return line(option->get_name(), option->get_type_name(), option->get_description());
  }
  std::string make_subcommand(const CLI::App* app) const override {
    std::string lines = line(app->get_name(), "", app->get_description());
    for (const CLI::Option* option : app->get_options()) {
      lines += line("  " + option->get_name(), option->get_type_name(), option->get_description());
    }
    return lines;
  }
  std::string make_usage(const CLI::App*, std::string) const override { return {}; }
  std::string make_description(const CLI::App* app) const override {
    return usage_ + "\n" + app->get_description() + "\n";
  }
  std::string make_footer(const CLI::App* app) const override {
    return app->get_footer().empty() ? "" : app->get_footer() + "\n";
  }

 private:
  static std::string line(const std::string& name, const std::string& value,
                          const std::string& help) {
    constexpr std::size_t INDENT = 25;
    constexpr std::size_t WIDTH = 55;
    std::string text = "  " + name + (value.empty() ? "" : " " + value);
    text += text.size() < INDENT ? std::string(INDENT - text.size(), ' ')
                                 : "\n" + std::string(INDENT, ' ');
    return text + wrapped(help, WIDTH, INDENT) + "\n";
  }

  std::string usage_;
};

/// What the parser would read as something else than it looks like.
bool isOdd(std::string_view argument) {
  return argument.empty() || argument == "--" || argument == "++";
}

bool isOption(std::string_view argument) {
  return argument.rfind("--", 0) == 0;
}

/// The arguments as the parser takes them, the last one first; *odd is set to one that it would
/// misunderstand.
std::vector<std::string> prepared(int count, const char* const* arguments, std::string* odd) {
  std::vector<std::string> given;
  for (int i = 0; i < count; ++i) {
    const std::string argument = arguments[i];
    const bool is_value = !given.empty() && isOption(given.back());
    if (isOdd(argument) && !(argument.empty() && is_value)) *odd = "'" + argument + "'";
    // "--name=" has an empty value, which the parser does not see as one.
    const std::size_t equals = isOption(argument) ? argument.find('=') : std::string::npos;
    given.push_back(argument.substr(0, equals));
    if (equals != std::string::npos) given.push_back(argument.substr(equals + 1));
  }
  std::reverse(given.begin(), given.end());
  return given;
}

void readInto(const Read& read, const std::string& name, const std::string& text) {
  const std::string wrong = read(text);
  if (!wrong.empty()) throw BadValue(name + " " + wrong);
}

/// What is wrong with a number; empty when it is within its bounds, and read.
template <typename Number>
std::string readNumber(const std::string& text, Number smallest, Number largest, Number* number) {
  Number read = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, read);
  if (error == std::errc() && stop == end && text[0] != '-' && read >= smallest &&
      read <= largest) {
    *number = read;
    return "";
  }
  std::ostringstream wrong;
  wrong << "needs a number from " << smallest << " to " << largest << ", not '" << text << "'";
  return wrong.str();
}

}  // namespace

class ArgumentParser::App {
 public:
  App(const std::string& program, const std::string& does)
      : own(std::make_unique<CLI::App>(does, program)), it(own.get()) {}
  explicit App(CLI::App* subcommand) : it(subcommand) {}

  std::unique_ptr<CLI::App> own;  ///< of a program; a subcommand belongs to its program's
  CLI::App* it;
  std::vector<std::unique_ptr<ArgumentParser>> subcommands;
};

ArgumentParser::ArgumentParser(const std::string& program, const std::string& usage,
                               const std::string& does)
    : ArgumentParser(std::make_unique<App>(program, does)) {
  app_->it->formatter(std::make_shared<HelpLines>(usage));
  app_->it->fallthrough();
  app_->it->require_subcommand(0, 1);
}

ArgumentParser::ArgumentParser(std::unique_ptr<App> app) : app_(std::move(app)) {
  app_->it->set_help_flag();
}

ArgumentParser::~ArgumentParser() = default;

void ArgumentParser::option(const std::string& name, const std::string& value,
                            const std::string& help, const Read& read) {
  app_->it
      ->add_option_function<std::string>(
          name, [=](const std::string& text) { readInto(read, name, text); }, help)
      ->type_name(value)
      ->expected(1);
}

void ArgumentParser::repeated(const std::string& name, const std::string& value,
                              const std::string& help, const Read& read) {
  app_->it
      ->add_option_function<std::vector<std::string>>(
          name,
          [=](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) readInto(read, name, text);
          },
          help)
      ->type_name(value)
      ->allow_extra_args(false);
}

void ArgumentParser::optional(const std::string& name, const std::string& value,
                              const std::string& help, const std::string& otherwise,
                              const Read& read) {
  app_->it
      ->add_option_function<std::string>(
          name, [=](const std::string& text) { readInto(read, name, text); }, help)
      ->type_name(value)
      ->expected(0, 1)
      ->default_str(otherwise);
}

void ArgumentParser::flag(const std::string& name, const std::string& help, bool* given) {
  app_->it->add_flag(name, *given, help);
}

void ArgumentParser::word(const std::string& name, const std::string& help, std::string* text) {
  app_->it->add_option(name, *text, help)->type_name("")->required();
}

ArgumentParser& ArgumentParser::subcommand(const std::string& name, const std::string& help,
                                           bool* given) {
  CLI::App* command = app_->it->add_subcommand(name, help);
  command->parse_complete_callback([given] { *given = true; });
  auto parser = std::unique_ptr<ArgumentParser>(new ArgumentParser(std::make_unique<App>(command)));
  return *app_->subcommands.emplace_back(std::move(parser));
}

void ArgumentParser::footer(const std::string& lines) {
  app_->it->footer(lines);
}

std::string ArgumentParser::parse(int count, const char* const* arguments) {
  const std::string advice = ": see " + app_->it->get_name() + " --help";
  std::string odd;
  std::vector<std::string> given = prepared(count, arguments, &odd);
  if (!odd.empty()) return "unknown argument " + odd + advice;
  try {
    app_->it->parse(given);
  } catch (const BadValue& error) {
    return error.what();
  } catch (const CLI::ParseError& error) {
    std::string sentence = error.what();
    std::replace(sentence.begin(), sentence.end(), '\n', ' ');
    return sentence + advice;
  }
  return "";
}

std::string ArgumentParser::help() const {
  return app_->it->help();
}

Read numberInto(double* number, double smallest, double largest) {
  return [=](const std::string& text) { return readNumber(text, smallest, largest, number); };
}

Read someTextInto(std::string* text) {
  return [=](const std::string& given) {
    *text = given;
    return given.empty() ? "needs a value that is not empty" : "";
  };
}

std::string readWholeNumber(const std::string& text, uint64_t smallest, uint64_t largest,
                            uint64_t* number) {
  return readNumber(text, smallest, largest, number);
}

}  // namespace armarguments
