#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

/// Ends the process, which the fuzzer reports as a finding together with the input.
#define CHECK(condition)                                           \
  do {                                                             \
    if (!(condition)) checkFailed(#condition, __FILE__, __LINE__); \
  } while (false)

[[noreturn]] inline void checkFailed(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: CHECK failed: %s\n", file, line, what);
  std::abort();
}

/// Memory of exactly the given size: a read or write beside it is seen by the address sanitizer.
class Exact {
 public:
  explicit Exact(std::size_t size) : bytes_(static_cast<char*>(std::malloc(size > 0 ? size : 1))) {
    CHECK(bytes_ != nullptr);
    for (std::size_t i = 0; i < size; ++i) bytes_[i] = FILL;
  }
  /// A copy of a text, with its terminating zero when asked for.
  Exact(const std::string& text, bool terminated) : Exact(text.size() + (terminated ? 1 : 0)) {
    text.copy(bytes_, text.size());
    if (terminated) bytes_[text.size()] = '\0';
  }
  ~Exact() { std::free(bytes_); }
  Exact(const Exact&) = delete;
  Exact& operator=(const Exact&) = delete;

  char* get() { return bytes_; }
  static constexpr char FILL = '\x5a';

 private:
  char* bytes_;
};
