#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/environment.h"

namespace {

constexpr int ATTEMPTS = 8;

/// The last list that was published; each leads to the one before, behind its own end.  Others may
/// read them still, and no search for leaks finds them.
char** published = nullptr;

bool hasEntry(char* const* list, const char* setting) {
  const std::size_t name = std::strcspn(setting, "=") + 1;
  for (; list != nullptr && *list != nullptr; ++list) {
    if (std::strncmp(*list, setting, name) == 0) return true;
  }
  return false;
}

std::size_t lengthOf(char* const* list) {
  std::size_t length = 0;
  while (list != nullptr && list[length] != nullptr) ++length;
  return length;
}

char** environment() {
  return __atomic_load_n(&environ, __ATOMIC_ACQUIRE);
}

/// Fills a copy with one entry more; false when the list has been replaced, and is maybe gone.
bool fill(char** copy, char* const* list, std::size_t length, char* setting) {
  if (environment() != list) return false;
  if (length > 0) std::memcpy(copy, list, length * sizeof(char*));
  copy[length] = setting;
  copy[length + 1] = nullptr;
  copy[length + 2] = reinterpret_cast<char*>(published);
  return true;
}

bool publish(char** before, char** after) {
  return __atomic_compare_exchange_n(&environ, &before, after, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

/// Whether a list has been changed since it was copied; only while the copy is the environment,
/// since the list may be gone when it is not.
bool changedMeanwhile(char* const* list, std::size_t length, char* const* copy) {
  if (list == nullptr || environment() != copy) return false;
  return std::memcmp(list, copy, length * sizeof(char*)) != 0 || list[length] != nullptr;
}

}  // namespace

bool putIntoEnvironment(char* setting) {
  for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
    char** const before = environment();
    if (hasEntry(before, setting)) break;
    const std::size_t length = lengthOf(before);
    auto* const after = static_cast<char**>(std::malloc((length + 3) * sizeof(char*)));
    if (after == nullptr) return false;
    if (!fill(after, before, length, setting) || !publish(before, after)) {
      std::free(after);
      continue;
    }
    __atomic_store_n(&published, after, __ATOMIC_RELAXED);
    // Finds its entry and only stores a pointer; and waits, at the C library's own lock, for a
    // setenv that may still be changing the list from before.
    const bool put = putenv(setting) == 0;
    if (put && !changedMeanwhile(before, length, after)) return true;
    (void)publish(after, before);
    if (!put) return false;
  }
  return putenv(setting) == 0;
}
