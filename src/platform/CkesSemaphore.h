#pragma once

/// A counting semaphore with a maximum, shared between processes by name: a System V set of three
/// semaphores, 0 the count, 1 a private lock that makes Post's check and addition one step, 2 the
/// maximum.  The key is project 1 of the name file at the path that createIPCName makes of the
/// name.
///
/// Results of the operations are 0 or a negative code, also recorded with the error manager; -140
/// on an object that is not initialized.  Safe between threads and processes.
class CkesSemaphore {
 public:
  static constexpr long ERR_NOT_INITIALIZED = -140;
  static constexpr long ERR_WAIT = -141;
  static constexpr long ERR_WOULD_BLOCK = -142;
  static constexpr long ERR_POST = -143;
  static constexpr long ERR_MAXIMUM = -144;

  /// Creates a named semaphore, or takes over and resets an existing one of the same key.  Accepts
  /// a maximum of 1 to 32766 and an initial count up to the maximum; otherwise creates nothing.
  CkesSemaphore(char* name, long initial, long maximum);
  /// Opens an existing named semaphore.
  explicit CkesSemaphore(char* name);
  /// The unnamed form.  It never becomes initialized, since creation needs a name file.
  CkesSemaphore(long initial, long maximum);
  /// Removes the set when this object created it.
  ~CkesSemaphore();
  CkesSemaphore(const CkesSemaphore&) = delete;
  CkesSemaphore& operator=(const CkesSemaphore&) = delete;

  /// Takes one unit, waiting without a limit; the argument is not used.  -141 on failure.
  long Wait(long timeout);
  /// Takes one unit when there is one; -142 when there is none, -141 on any other failure.
  long TryWait();
  /// Adds units; -144 when that would pass the maximum (nothing is added), -143 on failure.
  long Post(long count);
  /// True when construction succeeded.
  bool IsInitialized() const { return VInitialized; }
  /// True while the set that was opened or created has not been removed.
  bool IsThere() const { return VInitialized && implIsThere(); }

 private:
  bool implCreate(char* path, long initial, long maximum);
  bool implOpen(char* path);
  long implWait(long timeout);
  long implTryWait();
  long implPost(long count);
  bool implIsThere() const;
  bool implLock();
  bool implUnlock();
  bool implDestroy();

  bool VInitialized;
  bool VNamed;
  long VMaximum;
  bool VOwner;
  int semid;
};
