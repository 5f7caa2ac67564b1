#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Objects.h"

namespace armcontract {

/// An engine that is stopped before and after each of its system calls, so that nothing which it
/// does to the objects goes by unseen.  It is of no other use: it ends with this object.  The
/// thread that makes the object also uses it.
class TracedEngine {
 public:
  /// Starts the command as EngineProcess does.  Throws Unchecked when this process may not trace.
  TracedEngine(const std::vector<std::string>& command, const std::optional<std::string>& prefix,
               bool verbose);
  ~TracedEngine();
  TracedEngine(const TracedEngine&) = delete;
  TracedEngine& operator=(const TracedEngine&) = delete;

  /// Lets the engine, and all that it starts, run from one system call to the next until a look in
  /// between has seen enough.  False when it ends before that, or the time does.
  bool runUntil(Duration limit, const std::function<bool()>& enough);

 private:
  /// One stop or end of a task, 0 when there is none for now.
  static pid_t next(int* status);
  bool handle(pid_t task, int status, const std::function<bool()>& enough);

  std::set<pid_t> tasks_;  ///< its threads, and those of its children
};

}  // namespace armcontract
