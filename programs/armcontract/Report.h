#pragma once

#include <string>
#include <vector>

#include "armcontract/Clauses.h"

namespace armcontract {

/// One line for a terminal, with a second one for the reason when the clause does not hold.
std::string describe(const Verdict& verdict);

/// The last line: how many of which.
std::string summarize(const std::vector<Verdict>& verdicts);

/// All of it as one JSON object, ended by a newline.
std::string toJson(const Settings& settings, const std::vector<Verdict>& verdicts);

/// The clauses, a line each; as JSON an array of them.
std::string listClauses(const std::vector<Clause>& clauses, bool json);

/// The program's exit status: 0 when no clause is broken and one at least holds.
int exitStatus(const std::vector<Verdict>& verdicts);

}  // namespace armcontract
