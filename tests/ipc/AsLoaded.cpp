#include "platform/CkesThreadLibrary.h"

namespace {

/// The thread that loads the library initializes its threading layer, through the static mutexes.
/// Not every test program contains those.
[[maybe_unused]] const long INITIALIZED = CkesThreadLibrary::Initialize();

}  // namespace
