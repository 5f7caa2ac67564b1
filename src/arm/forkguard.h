#pragma once

/// Sees to it, once per process, that a child forked at any moment can use the library: whatever
/// the parent's other threads were doing, no mutex stays locked in the child and no conversion is
/// half done.  Registered by the first call that opens something, not at load.  A child made
/// without fork handlers (vfork, posix_spawn, a bare clone) may only execute another program.
void guardForks();
