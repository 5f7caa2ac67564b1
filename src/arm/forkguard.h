#pragma once

#include <atomic>

/// True once the handlers are registered.
extern std::atomic<bool> VForksGuarded;

/// Registers the handlers; any thread, any number of times.
void registerForkHandlers();

/// Sees to it, once per process, that a child forked at any moment can use the library: whatever the
/// parent's other threads were doing in it, no mutex stays locked in the child and no conversion is
/// half done.  Called before the first lock of every road into the library, not at load.
///
/// Not covered: what the host's own threads do in the C library meanwhile, and children made without
/// fork handlers (vfork, posix_spawn, a bare clone), which may only execute another program.
inline void guardForks() {
  if (!VForksGuarded.load(std::memory_order_acquire)) registerForkHandlers();
}
