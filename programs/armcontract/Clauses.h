#pragma once

#include <string>
#include <vector>

#include "armcontract/Bench.h"

namespace armcontract {

/// What a clause asks of the engine's fitness.
enum class Engine {
  any,    ///< harmless for an engine in use
  own,    ///< only with an engine that this program has started
  spent,  ///< the same, and the engine is of no use afterwards
};

/// One thing that an engine must do.
struct Clause {
  const char* name;
  const char* sentence;
  int section;  ///< of docs/contract.md
  Engine engine;
  /// Throws Broken when the clause does not hold, Unchecked when that cannot be told.
  void (*check)(Bench& bench);
};

/// All clauses, in the order in which they are checked.
std::vector<Clause> allClauses();

// The groups of which they are made.
std::vector<Clause> creationClauses();
std::vector<Clause> requestClauses();
std::vector<Clause> replyClauses();
std::vector<Clause> garbageClauses();
std::vector<Clause> lifeClauses();

/// What became of a clause.
struct Verdict {
  enum class Result { holds, broken, unchecked };
  Clause clause;
  Result result;
  std::string why;  ///< empty when it holds
};

Verdict examine(const Clause& clause, Bench& bench);

}  // namespace armcontract
