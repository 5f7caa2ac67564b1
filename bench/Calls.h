#pragma once

#include <string>

namespace bench {

/// One call of a kind, repeated with the same arguments.
using Call = void (*)();

/// The call of a name, null when there is none:
///   arm      arm_start
///   floor    the same by the bare client
///   scan     the same, with the caller's head record looked for from the first one on
///   ignored  arm_start of a transaction whose parent is to be ignored
///   pair     arm_start and arm_stop
///   either   arm_start and arm_stop in turns
///   none     arm_start with an id that is an earlier call's failure, as without an engine
Call callNamed(const std::string& name);

/// Opens what the calls need and registers a transaction class. False, with a line on standard
/// error, when no engine answers.
bool prepareCalls();

/// Calls that did not return what they should, so that no failure is measured by mistake.
long failedCalls();

}  // namespace bench
