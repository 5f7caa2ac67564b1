#include "ipc/CIPCUtils.h"

#include "diag/util1.h"
#include "ipc/multiagent.h"

namespace {

constexpr int AGENT_NAME_SIZE = 4096;

/// Kept apart for its buffer, which only processes with a prefix need on their stacks.
__attribute__((noinline)) void appendAgentName(char* out, unsigned long limit) {
  char agent[AGENT_NAME_SIZE];
  getMultiAgentName(agent, AGENT_NAME_SIZE);
  appendBounded(out, agent, limit);
}

}  // namespace

char* CIPCUtils::createIPCName(const char* name, const char* suffix, int size, char* out) {
  if (size < 1) return nullptr;
  const auto limit = static_cast<unsigned long>(size);
  out[0] = '\0';
  appendBounded(out, name, limit);
  if (suffix != nullptr) appendBounded(out, suffix, limit);
  if (isMultiAgent() == 0) return nullptr;
  appendBounded(out, POST_MULTI_DELIMETER, limit);
  appendAgentName(out, limit);
  return out;
}

_TIPCIdentifier GetEngineID() {
  static const _TIPCIdentifier engine = {0, 0};
  return engine;
}
