#include "ipc/multiagent.h"

#include <cstdlib>
#include <cstring>

int isMultiAgent() {
  return secure_getenv(MULTI_AGENT_ENV_VAR) != nullptr ? 1 : 0;
}

void getMultiAgentName(char* dst, int len) {
  if (dst == nullptr || len <= 0) return;
  const char* value = secure_getenv(MULTI_AGENT_ENV_VAR);
  std::strncpy(dst, value != nullptr ? value : "", static_cast<std::size_t>(len));
  dst[len - 1] = '\0';
}
