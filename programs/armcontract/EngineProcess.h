#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Objects.h"

namespace armcontract {

/// An engine that this program starts, in the foreground, and ends.
class EngineProcess {
 public:
  /// Starts the command.  It gets the prefix in ARM_AGENT_PREFIX; its output goes nowhere, or with
  /// verbose to this program's standard error.
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
