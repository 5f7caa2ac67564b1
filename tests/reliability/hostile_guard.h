#pragma once

#include <cstdint>

// Stands between the library and the C library in the programs that link hostile_guard.cpp, and in
// the processes that they fork. fuzz/Peer.cpp guards what it attaches too, where the library is
// linked in and one thread attaches; here several do, in a program of the shipped library.

namespace armtest {

/// How often the drain of the overflow semaphore was cut short. By contract only "nothing left"
/// ends it; with the set removed that never comes, so after 1000 failures in a row this answers so.
uint32_t drainsCut();

// Every attached segment has at least 1 MiB of inaccessible memory before it and, behind its last
// page, as much as any 32-bit offset can reach (in 64-bit programs; 32 MiB in 32-bit ones). The
// millisecond that a closing thread sleeps between two looks is shortened to ten microseconds.

}  // namespace armtest
