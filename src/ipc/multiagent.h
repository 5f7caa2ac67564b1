#pragma once

// The suffix that tells several engines on one machine apart: the value of the environment variable
// ARM_AGENT_PREFIX, read at each use.  Programs with raised privileges have none: their callers
// choose no engine for them.

/// The variable.
inline constexpr char MULTI_AGENT_ENV_VAR[] = "ARM_AGENT_PREFIX";

/// 1 when the variable is set, the empty value included, else 0.
int isMultiAgent();

/// Copies the variable's value into dst, cut to len - 1 characters; the empty string when it is not
/// set.  Does nothing for a null dst or a len below 1.
void getMultiAgentName(char* dst, int len);
