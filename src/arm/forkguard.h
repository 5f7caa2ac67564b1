#pragma once

/// Registers the library's fork handlers (platform/forkgate.h).  Called while the library is
/// loaded: what the host registers later then runs, before a fork and after it, while the library
/// is fit for use.
bool guardForks();
