#pragma once

/// A pointer that no other live thread of the process has, and that costs no call to get.  Says
/// nothing else; never null.
inline const void* threadMark() {
  return __builtin_thread_pointer();
}
