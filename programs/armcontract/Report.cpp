#include "armcontract/Report.h"

#include <algorithm>
#include <cstdio>

namespace armcontract {

namespace {

using Result = Verdict::Result;

const char* wordFor(Result result) {
  switch (result) {
    case Result::holds:
      return "holds";
    case Result::broken:
      return "broken";
    case Result::unchecked:
      return "unchecked";
  }
  return "";
}

std::string nameAndSentence(const Clause& clause) {
  char line[256];
  (void)std::snprintf(line, sizeof line, "%-24s  %s (section %d)\n", clause.name, clause.sentence,
                      clause.section);
  return line;
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    char escaped[8];
    if (c == '"' || c == '\\') {
      result += {'\\', c};
    } else if (static_cast<unsigned char>(c) < 0x20) {
      (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
      result += escaped;
    } else {
      result += c;
    }
  }
  return result + "\"";
}

std::string clauseFields(const Clause& clause) {
  return "\"name\": " + quoted(clause.name) + ", \"sentence\": " + quoted(clause.sentence) +
         ", \"section\": " + std::to_string(clause.section);
}

long numberOf(const std::vector<Verdict>& verdicts, Result result) {
  return std::count_if(verdicts.begin(), verdicts.end(),
                       [result](const Verdict& one) { return one.result == result; });
}

/// A JSON array with a line for each member.
template <typename Members, typename Describe>
std::string arrayOf(const Members& members, Describe describe) {
  std::string array = "[";
  for (const auto& member : members) {
    array += (array.size() > 1 ? ",\n  {" : "\n  {") + describe(member) + "}";
  }
  return array + "\n]";
}

}  // namespace

std::string describe(const Verdict& verdict) {
  char word[16];
  (void)std::snprintf(word, sizeof word, "%-9s  ", wordFor(verdict.result));
  const std::string line = word + nameAndSentence(verdict.clause);
  return verdict.why.empty() ? line : line + "           " + verdict.why + "\n";
}

std::string summarize(const std::vector<Verdict>& verdicts) {
  return std::to_string(numberOf(verdicts, Result::holds)) + " clauses hold, " +
         std::to_string(numberOf(verdicts, Result::broken)) + " are broken, " +
         std::to_string(numberOf(verdicts, Result::unchecked)) + " were not checked\n";
}

std::string toJson(const Settings& settings, const std::vector<Verdict>& verdicts) {
  const auto members = arrayOf(verdicts, [](const Verdict& verdict) {
    return clauseFields(verdict.clause) + ", \"result\": " + quoted(wordFor(verdict.result)) +
           ", \"why\": " + quoted(verdict.why);
  });
  return "{\"prefix\": " + (settings.prefix ? quoted(*settings.prefix) : "null") +
         ",\n\"holds\": " + std::to_string(numberOf(verdicts, Result::holds)) +
         ", \"broken\": " + std::to_string(numberOf(verdicts, Result::broken)) +
         ", \"unchecked\": " + std::to_string(numberOf(verdicts, Result::unchecked)) +
         ",\n\"clauses\": " + members + "}\n";
}

std::string listClauses(const std::vector<Clause>& clauses, bool json) {
  if (json) return arrayOf(clauses, clauseFields) + "\n";
  std::string text;
  for (const Clause& clause : clauses) text += nameAndSentence(clause);
  return text;
}

int exitStatus(const std::vector<Verdict>& verdicts) {
  const bool good =
      numberOf(verdicts, Result::broken) == 0 && numberOf(verdicts, Result::holds) > 0;
  return good ? 0 : 1;
}

}  // namespace armcontract
