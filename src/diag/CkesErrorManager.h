#pragma once

class CkesErrorStack;

/// The per-thread error records.  A platform or queue class that sees a failure records its code
/// and its own name here; each layer that the failure passes through may add its name.  Nothing
/// prints the trail; it is read with GetError and GetStackDump.
///
/// A thread has a stack when it initialized the library, or after RegisterThread; on any other
/// thread the per-thread operations return -203.  Results are 0 or a negative code.  Operations
/// marked (i) first initialize the thread library when needed and return -204 when that fails.
class CkesErrorManager {
 public:
  static constexpr long ERR_NO_MEMORY = -1;
  static constexpr long ERR_HAS_STACK = -200;
  static constexpr long ERR_NOT_STORED = -201;
  static constexpr long ERR_NO_STACK = -203;
  static constexpr long ERR_NOT_INITIALIZED = -204;
  static constexpr long ERR_NOT_CLEARED = -205;

  /// Makes the thread-local key and registers the calling thread; 0 at once when done before.
  static long Initialize();
  /// Gives the calling thread a stack; -200 when it has one, -1 without memory, -201 when it could
  /// not be stored.
  static long NewThread();
  /// (i) NewThread.
  static long RegisterThread();
  /// Takes the calling thread's stack away; -203 when it has none, -205 when the key could not be
  /// cleared.
  static long UnregisterThread();

  /// (i) Records an error code and the failing operation's name, which restarts the trail.
  static long SetError(long code, const char* text);
  /// (i) SetError for a code that is not 0; returns the code.  Inline, so that success costs a
  /// test.
  static long Record(long code, const char* text) {
    return code == 0 ? 0 : RecordFailure(code, text);
  }
  /// (i) SetError; returns the code.
  __attribute__((cold, noinline)) static long RecordFailure(long code, const char* text);
  /// (i) Adds a name to the trail; -202 when its oldest entry was dropped for it.
  static long AddFunction(const char* name);
  /// (i) Stores the last error code, 0 when there was none.
  static long GetError(long* code);
  /// (i) Writes the trail; see CkesErrorStack::GetStackDump.
  static long GetStackDump(char* buffer, int size);

  /// Stores the calling thread's stack, which stays the manager's.
  static long GetStack(CkesErrorStack** stack);
  /// (i) Copies the calling thread's stack.
  static long GetStack(CkesErrorStack& copy);

 private:
  static bool ready();
  static long readyStack(CkesErrorStack** stack);
};
