#pragma once

/// Marks the definition of an exported call; everything else in the library is hidden.  The names
/// are listed once more in libarm.map, which gives them their version.
#define ARM_EXPORT extern "C" __attribute__((visibility("default")))
