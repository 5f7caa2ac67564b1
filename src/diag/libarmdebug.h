#pragma once

#include <atomic>

/// 1 when the process's environment asks for tracing, else 0.  Settled once, by the first
/// checkDebug; every call site tests it before it formats a line.
extern std::atomic<int> VDebugRun;
/// True once the environment has been examined.
extern std::atomic<bool> VCheckedForDebugRun;

/// The variable that asks for tracing.
inline constexpr char ARMDEBUG_RUN_ENV_VAR[] = "ARMDEBUG";
/// The variable that chooses the format, and its value for the basic one.
inline constexpr char ARMDEBUG_FORMAT_ENV_VAR[] = "ARMDEBUGFORMAT";
inline constexpr char ARMDEBUG_FORMAT_BASIC[] = "basic";

// The variables of a program with raised privileges (set-user-id, capabilities of its file) are its
// caller's, and count as absent.

/// Examines the environment if that has not happened yet; when it asks for tracing, chooses the
/// format and writes the first record, "Debug run found in caller's environment.".
void checkDebug();

/// True when ARMDEBUG is in the environment, whatever its value, the empty one included.
bool checkForDebugRun();

/// Chooses the trace format by ARMDEBUGFORMAT: "basic" exactly the basic one, any other value the
/// XML one; without the variable the format stays as it is.
void checkForDebugFormat();
