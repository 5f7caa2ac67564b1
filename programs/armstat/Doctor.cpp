#include "armstat/Doctor.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "text/Columns.h"

namespace armstat {

namespace {

constexpr std::size_t LINE_COLUMNS = 1000;

const char* markOf(Level level) {
  switch (level) {
    case Level::good:
      return "ok       ";
    case Level::note:
      return "note     ";
    case Level::warning:
      return "warning  ";
    case Level::problem:
      return "PROBLEM  ";
  }
  return "";
}

const char* nameOf(Level level) {
  switch (level) {
    case Level::good:
      return "good";
    case Level::note:
      return "note";
    case Level::warning:
      return "warning";
    case Level::problem:
      return "problem";
  }
  return "";
}

}  // namespace

bool Diagnosis::healthy() const {
  return std::none_of(findings.begin(), findings.end(),
                      [](const Finding& one) { return one.level == Level::problem; });
}

Diagnosis diagnose() {
  const Picture picture = takePicture(Manner::without_lock);
  Diagnosis diagnosis;
  const auto add = [&diagnosis](const Findings& some) {
    diagnosis.findings.insert(diagnosis.findings.end(), some.begin(), some.end());
  };
  add(checkNames(picture));
  add(checkKeys(picture));
  add(checkEngine(picture));
  add(checkQueues(picture));
  unsigned unreadable = 0;
  const std::vector<User> users = usersOfLibrary(&unreadable);
  add(checkUsers(users, unreadable, picture));
  add(checkLoginManager(picture, ""));
  add(checkLimits(readLimits(), !picture.objects.any()));
  return diagnosis;
}

std::string asText(const Diagnosis& diagnosis) {
  std::string text;
  for (const Finding& one : diagnosis.findings) {
    text += markOf(one.level) + armtext::printable(one.text, LINE_COLUMNS) + "\n";
    if (!one.advice.empty()) {
      text += "         -> " + armtext::printable(one.advice, LINE_COLUMNS) + "\n";
    }
  }
  return text;
}

std::string asJson(const Diagnosis& diagnosis) {
  nlohmann::ordered_json json = {{"healthy", diagnosis.healthy()},
                                 {"findings", nlohmann::ordered_json::array()}};
  for (const Finding& one : diagnosis.findings) {
    json["findings"].push_back(
        {{"level", nameOf(one.level)}, {"text", one.text}, {"advice", one.advice}});
  }
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace armstat
