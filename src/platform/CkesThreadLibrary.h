#pragma once

#include <atomic>

class CkesThread;

/// The value of a key that has not been made: no key of the process has it.
inline constexpr unsigned int NO_THREAD_KEY = ~0U;

/// The process-wide part of the threading layer: one-time initialization, thread-local keys, the
/// calling thread's name and identifier.  Static members only.
///
/// Results are 0 or a negative code.  Every operation except Initialize, IsInitialized,
/// GetThreadName and SetThreadName first initializes the library when that has not happened yet,
/// and returns -102 when it fails (SameThreadIDs compares all the same).  Any thread may call any
/// operation; the first initialization is not guarded against two threads at once (it happens while
/// the library is loaded).
class CkesThreadLibrary {
 public:
  static constexpr long ERR_ALREADY_INITIALIZED = -101;
  static constexpr long ERR_NOT_INITIALIZED = -102;
  static constexpr long ERR_KEY_CREATE = -103;
  static constexpr long ERR_KEY_INVALID = -104;
  static constexpr long ERR_KEY_SET = -105;
  static constexpr long ERR_NO_NAME = -114;

  /// True once Initialize has been called.
  static std::atomic<bool> VInitialized;
  /// The key of the thread names.
  static unsigned int VTNameKey;

  /// Makes the key of the thread names, names the calling thread "Main Thread" and initializes the
  /// error manager.  -101 when already initialized, else the code of the step that failed; the
  /// library then stays marked initialized.
  static long Initialize();
  /// True once Initialize has been called.
  static bool IsInitialized();

  /// Makes a thread-local key without destructor; -103 on failure (not recorded).
  static long CreateNewKey(unsigned int* key);
  /// Stores the calling thread's value; -104 for an unknown key, -105 on any other failure.
  static long SetKeyValue(unsigned int key, void* value);
  /// Stores the calling thread's value through value, null when it was never set.
  static long GetKeyValue(unsigned int key, void** value);

  /// Joins the threads in array order and stops at the first non-zero result, which it returns.
  static long JoinAll(CkesThread** threads, int count);

  /// Copies the calling thread's name, whatever its length, into out; -114 when it has none.
  static long GetCurrentThreadName(char* out);
  /// Stores the calling thread's pthread_self() through id.
  static long GetCurrentThreadID(unsigned long* id);
  /// True when the two identifiers are equal, whether the library could be initialized or not.
  static bool SameThreadIDs(unsigned long a, unsigned long b);
  /// Yields the processor.
  static long GiveWay();

  /// The calling thread's name, null when it has none; the pointer that SetThreadName was given.
  static const char* GetThreadName();
  /// Names the calling thread.  The pointer is kept, not copied.  Results as SetKeyValue.
  static long SetThreadName(char* name);

 private:
  static long implInitialize();
  static long implCreateNewKey(unsigned int* key);
  static long implSetKeyValue(unsigned int key, void* value);
  static long implGetKeyValue(unsigned int key, void** value);
  static long implGetCurrentThreadID(unsigned long* id);
  static long implGiveWay();
  static bool ready();
};
