#include "platform/threadmark.h"

namespace {
__attribute__((tls_model("initial-exec"))) thread_local char mark = 0;
}

const void* threadMark() {
  return &mark;
}
