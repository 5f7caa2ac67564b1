#pragma once

namespace armtest {

/// While one lives, the calls of its thread are the test's own: nothing watches, replaces or fails
/// them (calls.h).
class Unwatched {
 public:
  Unwatched() { ++depth; }
  ~Unwatched() { --depth; }
  Unwatched(const Unwatched&) = delete;
  Unwatched& operator=(const Unwatched&) = delete;

  static bool here() { return depth > 0; }

 private:
  static inline thread_local int depth = 0;
};

}  // namespace armtest
