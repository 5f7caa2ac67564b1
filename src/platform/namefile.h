#pragma once

/// Makes sure that the file at path exists, creating it empty when it does not; ftok needs it.
/// False, with errno set, when the path is null or the file can neither be read nor created.
bool ensureNameFile(const char* path);
