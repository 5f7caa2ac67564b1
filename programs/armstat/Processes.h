#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace armstat {

// What can be seen of other processes.  Without the right to look, the answer is none.

/// Whether a process exists; one that has ended and waits for its parent does not.
bool processLives(pid_t process);
/// The short name of its program, "" when it is not known.
std::string processName(pid_t process);
/// Its state letter ('R', 'S', 'T' ...), '?' when it is not known.
char processState(pid_t process);
/// Whether a thread word of a process names a thread that lives.  None where it cannot be told:
/// 32-bit programs use numbers that only they understand.
std::optional<bool> threadLives(pid_t process, uint32_t thread);

/// A process that has loaded the library.
struct User {
  pid_t process = 0;
  std::string name;
  bool other_ipc = false;             ///< it lives in another IPC namespace
  std::optional<bool> same_key;       ///< whether paths give it the same keys
  std::optional<std::string> prefix;  ///< its ARM_AGENT_PREFIX
  bool prefix_known = false;          ///< whether its environment could be read
};

/// All processes that have loaded libarm.so, as far as they may be looked at.
///   unreadable  is set to the number of processes that may not be looked at
std::vector<User> usersOfLibrary(unsigned* unreadable);

}  // namespace armstat
