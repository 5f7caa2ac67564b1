#pragma once

#include <cstdint>

#include "armext.h"

namespace armtest {

/// The exported calls, linked or looked up.
struct ArmCalls {
  decltype(&arm_init) init;
  decltype(&w_ArmInit) w_init;
  decltype(&arm_getid) getid;
  decltype(&w_ArmGetID) w_getid;
  decltype(&arm_start) start;
  decltype(&arm_update) update;
  decltype(&arm_stop) stop;
  decltype(&arm_transactionReport) report;
  decltype(&arm_transactionInstanceReport) instance_report;
  decltype(&arm_completeTransaction) complete;
  decltype(&arm_completeTransactionInstance) complete_instance;
  decltype(&arm_associateMetricData) metric;
  decltype(&arm_end) end;
  decltype(&SetExpectedCodeset) set_codeset;
  decltype(&GetExpectedCodeset) get_codeset;
  decltype(&arm_getCorrelatorKey) key;
};

/// Of a program that is linked with the library.
inline ArmCalls linkedCalls() {
  return {arm_init,
          w_ArmInit,
          arm_getid,
          w_ArmGetID,
          arm_start,
          arm_update,
          arm_stop,
          arm_transactionReport,
          arm_transactionInstanceReport,
          arm_completeTransaction,
          arm_completeTransactionInstance,
          arm_associateMetricData,
          arm_end,
          SetExpectedCodeset,
          GetExpectedCodeset,
          arm_getCorrelatorKey};
}

/// Of a library opened with dlopen or dlmopen; aborts when one is missing.
ArmCalls loadedCalls(void* library);

/// Makes every call once, with an id of the caller's; an engine that derives its answers must
/// answer. Returns how many results were not those of that id.
int wrongAnswersOfEveryCall(const ArmCalls& arm, int32_t id);

/// Makes every call once where no engine is to be had: how many of those that post do not return
/// -2, and of the others their own result.
int wrongResultsWithoutAnEngine(const ArmCalls& arm);

/// The same as wrongAnswersOfEveryCall, through the linked library.
inline int wrongAnswersOfEveryCall(int32_t id) {
  return wrongAnswersOfEveryCall(linkedCalls(), id);
}

/// Shared memory segments that this process has attached.
unsigned long segmentsAttached();

}  // namespace armtest
