// Plays the library's side against an engine and prints which clauses of the contract hold.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "armcontract/Clauses.h"
#include "armcontract/Options.h"
#include "armcontract/Report.h"
#include "common/Program.h"

namespace {

using armcontract::Bench;
using armcontract::Clause;
using armcontract::CommandLine;
using armcontract::Verdict;

constexpr int BAD_INPUT = 2;

int complain(const std::string& sentence, int status) {
  return armtools::complain("armcontract", sentence, status);
}

void print(const std::string& text) {
  (void)std::fputs(text.c_str(), stdout);
  (void)std::fflush(stdout);
}

/// The clauses that were asked for.  A name that none has goes to unknown.
std::vector<Clause> chosenClauses(const CommandLine& line, std::string* unknown) {
  std::vector<Clause> all = armcontract::allClauses();
  if (line.clauses.empty()) return all;
  std::vector<Clause> chosen;
  for (const std::string& name : line.clauses) {
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&name](const Clause& one) { return name == one.name; });
    if (found == all.end()) {
      *unknown = name;
    } else {
      chosen.push_back(*found);
    }
  }
  return chosen;
}

int check(const CommandLine& line, const std::vector<Clause>& clauses) {
  Bench bench(line.settings);
  if (bench.hasOwnEngine() == bench.isServed()) {
    return complain(bench.hasOwnEngine()
                        ? "an engine serves this prefix already: choose another --prefix"
                        : "no living engine serves this prefix: start one, or give its command "
                          "after --",
                    1);
  }
  std::vector<Verdict> verdicts;
  for (const Clause& clause : clauses) {
    verdicts.push_back(armcontract::examine(clause, bench));
    if (!line.json) print(describe(verdicts.back()));
  }
  print(line.json ? toJson(line.settings, verdicts) : summarize(verdicts));
  return exitStatus(verdicts);
}

}  // namespace

int main(int count, char** arguments) {
  const CommandLine line = armcontract::parseCommandLine(count - 1, arguments + 1);
  if (!line.error.empty()) return complain(line.error, BAD_INPUT);
  if (line.help) {
    print(armcontract::helpText());
    return 0;
  }
  std::string unknown;
  const std::vector<Clause> clauses = chosenClauses(line, &unknown);
  if (!unknown.empty()) {
    return complain("there is no clause '" + unknown + "': see armcontract --list", BAD_INPUT);
  }
  if (line.list) {
    print(listClauses(clauses, line.json));
    return 0;
  }
  return check(line, clauses);
}
