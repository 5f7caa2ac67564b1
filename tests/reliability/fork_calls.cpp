#include "fork_calls.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "ScriptProtocol.h"

namespace armtest {

namespace {

/// A name whose first four characters belong to an id.
struct NameOfId {
  char text[16];
  int32_t word;

  explicit NameOfId(int32_t id) : text{}, word(0) {
    (void)std::snprintf(text, sizeof text, "%04d", id % 10000);
    std::memcpy(&word, text, sizeof word);
  }
};

template <typename Function>
void lookUp(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  if (function == nullptr) abort();
}

}  // namespace

ArmCalls loadedCalls(void* library) {
  ArmCalls calls = {};
  lookUp(library, "arm_init", calls.init);
  lookUp(library, "w_ArmInit", calls.w_init);
  lookUp(library, "arm_getid", calls.getid);
  lookUp(library, "w_ArmGetID", calls.w_getid);
  lookUp(library, "arm_start", calls.start);
  lookUp(library, "arm_update", calls.update);
  lookUp(library, "arm_stop", calls.stop);
  lookUp(library, "arm_transactionReport", calls.report);
  lookUp(library, "arm_transactionInstanceReport", calls.instance_report);
  lookUp(library, "arm_completeTransaction", calls.complete);
  lookUp(library, "arm_completeTransactionInstance", calls.complete_instance);
  lookUp(library, "arm_associateMetricData", calls.metric);
  lookUp(library, "arm_end", calls.end);
  lookUp(library, "SetExpectedCodeset", calls.set_codeset);
  lookUp(library, "GetExpectedCodeset", calls.get_codeset);
  lookUp(library, "arm_getCorrelatorKey", calls.key);
  return calls;
}

unsigned long segmentsAttached() {
  std::ifstream maps("/proc/self/maps");
  unsigned long count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/SYSV") != std::string::npos) ++count;
  }
  return count;
}

namespace {

/// Makes every call once; how many results are not the expected ones, of calls with a name and with
/// an id.
int wrongResults(const ArmCalls& arm, int32_t id, int32_t of_name, int32_t of_id) {
  const NameOfId name(id);
  int wrong = 0;
  wrong += arm.init(name.text, "user", 0, nullptr, 0) == of_name ? 0 : 1;
  wrong += arm.w_init(0, name.text, "user", 0, nullptr, 0) == of_name ? 0 : 1;
  wrong += arm.getid(id, "class", "detail", 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.w_getid(0, id, "class", "detail", 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.start(id, 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.update(id, 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.stop(id, ARM_GOOD, 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.report(id, 0, nullptr, 0, 1, 1, 2, 3) == of_id ? 0 : 1;
  wrong += arm.instance_report(id, 0, nullptr, 0, 0, 1, 2, 3) == of_id ? 0 : 1;
  wrong += arm.complete(id, 1, 2) == of_id ? 0 : 1;
  wrong += arm.complete_instance(id, 1, 2) == of_id ? 0 : 1;
  wrong += arm.metric(id, &id, sizeof id) == of_id ? 0 : 1;
  wrong += arm.end(id, 0, nullptr, 0) == of_id ? 0 : 1;
  wrong += arm.set_codeset("UTF-8") == -3004 ? 0 : 1;
  wrong += arm.get_codeset() != nullptr ? 0 : 1;
  wrong += std::strcmp(arm.key(), "ARM_CORRELATOR") == 0 ? 0 : 1;
  return wrong;
}

}  // namespace

int wrongAnswersOfEveryCall(const ArmCalls& arm, int32_t id) {
  return wrongResults(arm, id, derivedResult(NameOfId(id).word), derivedResult(id));
}

int wrongResultsWithoutAnEngine(const ArmCalls& arm) {
  return wrongResults(arm, 5, -2, -2);
}

}  // namespace armtest
