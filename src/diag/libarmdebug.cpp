#include "diag/libarmdebug.h"

#include <cstdlib>
#include <cstring>

#include "diag/wcdebug.h"

std::atomic<int> VDebugRun{0};
std::atomic<bool> VCheckedForDebugRun{false};

void checkDebug() {
  if (VCheckedForDebugRun) return;
  const bool run = checkForDebugRun();
  VDebugRun = run ? 1 : 0;
  VCheckedForDebugRun = true;
  if (!run) return;
  checkForDebugFormat();
  wcDebug("Debug run found in caller's environment.\n");
}

bool checkForDebugRun() {
  return secure_getenv(ARMDEBUG_RUN_ENV_VAR) != nullptr;
}

void checkForDebugFormat() {
  const char* format = secure_getenv(ARMDEBUG_FORMAT_ENV_VAR);
  if (format == nullptr) return;
  wcDebugSetLogFormat(std::strcmp(format, ARMDEBUG_FORMAT_BASIC) == 0 ? 0 : 1);
}
