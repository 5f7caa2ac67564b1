#pragma once

/// Puts a setting "NAME=value" into the process's environment, which keeps pointing at the text; a
/// value that the name had is replaced.  As putenv, but nothing that other threads may be reading
/// is freed or moved: an entry is replaced by one store, and a longer list is published by one
/// store and never freed.  What the host's setenv changes meanwhile is kept.  Any thread.
///
/// False, with the environment as it was, when memory is short or the C library refuses.
bool putIntoEnvironment(char* setting);
