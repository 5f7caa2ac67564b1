#pragma once

// What a process would run when it attaches to or detaches from the library.  Neither function is
// registered with the loader or called by the library: the debug switch is settled by the first
// registration, and the connection is never closed at unload.

/// Settles the debug switch and traces the attachment.
void processAttach();

/// Traces the detachment, closes the connection under VInitMutex and frees the converter.
void processDetach();
