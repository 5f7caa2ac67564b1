#pragma once

/// Sets one byte of a caller's memory to zero if that memory can be written; false, with nothing
/// touched, when it cannot (a string literal, say).
bool clearCallerByte(const char* byte);
