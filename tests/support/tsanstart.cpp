// Clang's shared runtime of the thread sanitizer is made ready by the program, before any library's
// own start calls what it intercepts.  Programs that are not watched have none.

extern "C" __attribute__((weak)) void __tsan_init();

namespace {

__attribute__((disable_sanitizer_instrumentation)) void start() {
  if (__tsan_init != nullptr) __tsan_init();
}

using Start = void (*)();
__attribute__((section(".preinit_array"), used)) const Start START = start;

}  // namespace
