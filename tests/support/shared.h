#pragma once

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace armtest {

/// An object that the processes forked later share.
template <typename T>
class Shared {
 public:
  Shared() {
    void* pages =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) abort();
    object_ = new (pages) T{};
  }
  ~Shared() { munmap(object_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() const { return object_; }
  T* get() const { return object_; }

 private:
  T* object_;
};

}  // namespace armtest
