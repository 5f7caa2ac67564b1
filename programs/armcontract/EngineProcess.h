#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "armcontract/Objects.h"

namespace armcontract {

/// Makes the calling process, which `parent` has just forked, an engine: it gets the prefix in
/// ARM_AGENT_PREFIX; its output goes nowhere, or with verbose to standard error.
[[noreturn]] void becomeEngine(pid_t parent, std::vector<std::string> command,
                               const std::optional<std::string>& prefix, bool verbose);

/// An engine that this program starts, in the foreground, and ends.
class EngineProcess {
 public:
  /// Starts the command, see becomeEngine.
  EngineProcess(const std::vector<std::string>& command, const std::optional<std::string>& prefix,
                bool verbose);
  /// Kills it when it still runs.
  ~EngineProcess();
  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  bool running();
  void signal(int number) const;
  /// Whether it ends within the limit.
  bool ends(Duration limit);

 private:
  pid_t process_;
};

}  // namespace armcontract
