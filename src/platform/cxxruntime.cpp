// What the library needs of a C++ runtime: memory operators over malloc and free that never throw,
// and the filler of pure virtual slots.  They keep the runtime's throwing operators, and the memory
// that those set aside at load, out of the host.  Part of the shared library only; the version
// script keeps them inside it.

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) {
  return std::malloc(size != 0 ? size : 1);
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}

// Not every compiler declares the sized forms by itself.
void operator delete(void* memory, std::size_t size) noexcept;
void operator delete[](void* memory, std::size_t size) noexcept;

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

extern "C" void __cxa_pure_virtual();
extern "C" void __cxa_pure_virtual() {}
