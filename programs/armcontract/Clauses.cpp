#include "armcontract/Clauses.h"

namespace armcontract {

std::vector<Clause> allClauses() {
  std::vector<Clause> all;
  for (const auto& group :
       {creationClauses(), requestClauses(), replyClauses(), garbageClauses(), lifeClauses()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return all;
}

Verdict examine(const Clause& clause, Bench& bench) {
  using Result = Verdict::Result;
  if (clause.engine != Engine::any && !bench.hasOwnEngine()) {
    return {clause, Result::unchecked, "it needs an engine that armcontract starts itself"};
  }
  try {
    std::string why;
    if (!bench.prepare(&why)) return {clause, Result::unchecked, why};
    if (clause.engine != Engine::any) bench.requireService();
    clause.check(bench);
    if (clause.engine == Engine::spent) bench.discard();
    return {clause, Result::holds, ""};
  } catch (const Broken& reason) {
    // What it has left undone must not be found by the next clause.
    bench.discard();
    return {clause, Result::broken, reason.what()};
  } catch (const Unchecked& reason) {
    bench.discard();
    return {clause, Result::unchecked, reason.what()};
  }
}

}  // namespace armcontract
