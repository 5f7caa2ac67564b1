#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/CkesEvent.h"

/// What has become of a thread.
enum TThreadState : int {
  THREAD_CREATED = 0,   ///< the system's thread exists and waits for Start
  THREAD_RUNNING = 1,   ///< started
  THREAD_FINISHED = 2,  ///< the body returned, or the thread was terminated
  THREAD_INVALID = 3    ///< it could not be created
};

/// A thread priority; no operation interprets its values on this platform.
enum TThreadPriority : int { THREAD_PRIORITY_NORMAL = 0 };

/// A thread whose body a subclass supplies.  Construction creates the system's thread at once and
/// holds it until Start.  Destruction neither joins nor cancels it: owners join first.
///
/// Results are 0 or a negative code, which is also recorded with the error manager; -106 means that
/// the thread's state does not allow the call.
class CkesThread {
 public:
  static constexpr long ERR_NOT_SUPPORTED = -2;
  static constexpr long ERR_STATE = -106;
  static constexpr long ERR_JOIN_SELF = -109;
  static constexpr long ERR_JOIN = -110;
  static constexpr long ERR_NOT_OWN_THREAD = -111;
  static constexpr long ERR_CANCEL = -112;

  virtual ~CkesThread();
  CkesThread(const CkesThread&) = delete;
  CkesThread& operator=(const CkesThread&) = delete;

  /// The thread's name, owned by the object.
  const char* GetName() const { return VName; }
  /// Stores the thread's pthread identifier; not allowed in THREAD_INVALID.
  long GetID(unsigned long* id);
  /// Lets a created thread run its body.
  long Start();
  /// Not supported: always -2 for a created or running thread.
  long SetPriority(TThreadPriority priority);
  /// Not supported: always -2 for a created or running thread.
  long GetPriority(TThreadPriority* priority);
  /// Waits for the end of a created or running thread; 0 at once for a finished one.  -109 when the
  /// thread joins itself, -110 on any other failure.
  long Join();
  /// Cancels a running thread, which counts as finished even when that fails with -112.
  long Terminate();
  /// Yields the processor; -111 when another thread than this one calls it.
  long GiveWay();
  /// The state; when the body has returned, a caller that reads THREAD_FINISHED sees all it has
  /// done.
  TThreadState GetState() const { return VState.load(std::memory_order_acquire); }

 protected:
  /// Named "Unnamed", whether the thread could be created or not.
  CkesThread();
  /// Named by at most 33 characters of name, but only when the thread could be created.
  explicit CkesThread(const char* name);

 private:
  static constexpr unsigned NAME_SIZE = 34;

  virtual void Run() = 0;

  bool create();
  void runBody();
  static void* startRoutine(void* thread);
  bool implInitialize();
  long implJoin();
  long implTerminate();
  long implGiveWay();

  pthread_t VThread;
  std::atomic<TThreadState> VState;
  CkesEvent VStartEvent;
  char VName[NAME_SIZE];
};
