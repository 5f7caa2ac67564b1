// The paths of the interprocess objects, for every prefix, name, suffix and length limit.

#include <cstdlib>
#include <string>

#include "Check.h"
#include "Input.h"
#include "ipc/CIPCUtils.h"
#include "ipc/multiagent.h"

namespace {

constexpr int LONGEST_AGENT = 4095;

std::string cut(const std::string& text, int size) {
  return text.substr(0, static_cast<std::size_t>(size - 1));
}

void buildName(const std::string& name, const std::string* suffix, const std::string* agent,
               int size) {
  Exact source(name, true);
  Exact end(suffix != nullptr ? *suffix : "", true);
  Exact out(static_cast<std::size_t>(size > 0 ? size : 1));
  const char* result = CIPCUtils::createIPCName(
      source.get(), suffix != nullptr ? end.get() : nullptr, size, out.get());
  if (size < 1) {
    CHECK(out.get()[0] == Exact::FILL);
    return;
  }
  std::string expected = name + (suffix != nullptr ? *suffix : "");
  if (agent != nullptr) expected += "." + agent->substr(0, LONGEST_AGENT);
  CHECK(cut(expected, size) == out.get());
  CHECK(result == (agent != nullptr ? out.get() : nullptr));
}

void readAgent(const std::string* agent, int size) {
  CHECK(isMultiAgent() == (agent != nullptr ? 1 : 0));
  Exact out(static_cast<std::size_t>(size > 0 ? size : 1));
  getMultiAgentName(out.get(), size);
  if (size > 0) CHECK(cut(agent != nullptr ? *agent : "", size) == out.get());
  if (size < 1) CHECK(out.get()[0] == Exact::FILL);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr const char* VARIABLE = "ARM_AGENT_PREFIX";
  Input input(data, size);
  const bool has_agent = input.flag();
  const bool has_suffix = input.flag();
  const int limit = static_cast<int>(input.half() % 9000) - 2;
  const std::string name = input.text(5000);
  const std::string suffix = input.text(300);
  std::string agent = input.rest();
  agent = agent.substr(0, agent.find('\0'));
  CHECK((has_agent ? setenv(VARIABLE, agent.c_str(), 1) : unsetenv(VARIABLE)) == 0);
  buildName(name, has_suffix ? &suffix : nullptr, has_agent ? &agent : nullptr, limit);
  readAgent(has_agent ? &agent : nullptr, limit);
  return 0;
}
