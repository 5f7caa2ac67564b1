#pragma once

#include <string>

#include "diag/CkesErrorManager.h"

namespace armtest {

/// The calling thread's last error: its code, then the trail, as "code text1 < text2 < ...".
inline std::string errorTrail() {
  long code = 0;
  char dump[4096] = "";
  if (CkesErrorManager::GetError(&code) != 0) return "no error stack";
  (void)CkesErrorManager::GetStackDump(dump, sizeof dump);
  std::string trail = std::to_string(code) + " ";
  for (const char* c = dump; *c != '\0'; ++c) {
    if (*c != '\n') {
      trail += *c;
    } else if (c[1] != '\0') {
      trail += " < ";
    }
  }
  return trail;
}

}  // namespace armtest
