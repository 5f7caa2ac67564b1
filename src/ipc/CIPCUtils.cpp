#include "ipc/CIPCUtils.h"

#include "diag/util1.h"
#include "ipc/multiagent.h"

namespace {

constexpr const char* POST_MULTI_DELIMETER = ".";  // sic
constexpr int AGENT_NAME_SIZE = 4096;

}  // namespace

char* CIPCUtils::createIPCName(const char* name, const char* suffix, int size, char* out) {
  if (size < 1) return nullptr;
  const auto limit = static_cast<unsigned long>(size);
  out[0] = '\0';
  appendBounded(out, name, limit);
  if (suffix != nullptr) appendBounded(out, suffix, limit);
  if (isMultiAgent() == 0) return nullptr;
  appendBounded(out, POST_MULTI_DELIMETER, limit);
  char agent[AGENT_NAME_SIZE];
  getMultiAgentName(agent, AGENT_NAME_SIZE);
  appendBounded(out, agent, limit);
  return out;
}

_TIPCIdentifier GetEngineID() {
  static const _TIPCIdentifier engine = {0, 0};
  return engine;
}
