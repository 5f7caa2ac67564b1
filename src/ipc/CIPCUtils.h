#pragma once

#include "ipc/TIPCIdentifier.h"

/// What stands between a path and the agent's name.
inline constexpr char POST_MULTI_DELIMETER[] = ".";  // sic (delimeter)

/// Names and identifiers of the engine channel.  Static members only, no state; any thread.
class CIPCUtils {
 public:
  /// True when both words are equal.
  static bool sameIPCIdentifiers(_TIPCIdentifier a, _TIPCIdentifier b) {
    return a.processId == b.processId && a.threadId == b.threadId;
  }

  /// Builds the path of an interprocess object: name, then suffix (may be null), then, when
  /// ARM_AGENT_PREFIX is set, "." and its value.  What does not fit into size - 1 characters is
  /// dropped; never more than size bytes of out are written.  Returns out when the agent's suffix
  /// was appended, else null.
  static char* createIPCName(const char* name, const char* suffix, int size, char* out);
};

/// The calling process.
int GetProcessID();

/// The identifier of the calling thread in its TIPCIdentifier, unique among the live threads of the
/// process.  On 32-bit platforms it is the pthread identifier.  On 64-bit ones the low half of that
/// is not unique (stacks can lie 4 GiB apart), so it is the kernel's thread id there.
unsigned long GetThreadId();

/// {GetProcessID(), GetThreadId()}: the address that a reply to the calling thread carries.
_TIPCIdentifier GetIpcIdentifier();

/// Called in a forked child: the calling thread asks for its identifier anew, even where parent and
/// child have the same process id (in process namespaces of their own).
void forgetIdentityInForkedChild();

/// The engine's identifier, always {0, 0}.
_TIPCIdentifier GetEngineID();
