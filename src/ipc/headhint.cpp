#include "ipc/headhint.h"

namespace {
__attribute__((tls_model("initial-exec"))) thread_local uint16_t hint = 0;
}

uint16_t& headHint() {
  return hint;
}
