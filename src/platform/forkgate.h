#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "platform/threadmark.h"

// What lets a child forked at any moment use the library, whatever the parent's other threads were
// doing in it.  No mutex is held across the host's fork handlers, in whatever order they run;
// instead, whoever begins something that a child could not repair waits while a fork is under way,
// and a fork waits for what has begun.  Both waits are bounded, since the host's handlers may wait
// for the thread that waits; a thread waits for the same fork once.
//
// Not covered: what the host's own threads do in the C library meanwhile, and children made without
// fork handlers (vfork, posix_spawn, a bare clone), which may only execute another program.

/// The process that the calling thread is forking: set from the library's prepare handler to its
/// parent or child handler, else 0.  Negative in a child that has used the library before that
/// handler ran.
__attribute__((tls_model("initial-exec"))) inline thread_local pid_t VForkingProcess = 0;

/// Registers the fork handlers.  renew makes good, in a child, whatever other threads may have left
/// behind. False when the C library refuses.
bool registerForkHandlers(void (*renew)());

/// For a thread that is forking: renews the library when this is the child already, that is, when a
/// handler of the host's calls that runs before the library's own.
void renewIfForked();

/// Something that one thread at a time does under a mutex, and that a child born meanwhile could
/// not repair: it may leave locks of others taken.
class CForkGate {
 public:
  /// Called with the mutex held, which is given back while another thread's fork is waited for.
  /// False when it cannot be entered: a child was born while another thread was inside, or a signal
  /// handler has interrupted that thread itself.
  template <typename Mutex>
  bool Enter(Mutex& mutex) {
    for (int polls = 0; VInside.load() == nullptr; ++polls) {
      VInside.store(threadMark());
      if (polls == POLLS) WaitNoLongerForThisFork();
      if (!ForkToWaitFor()) return true;
      VInside.store(nullptr);
      (void)mutex.Unlock();
      (void)usleep(POLL_MICROSECONDS);
      (void)mutex.Lock();
    }
    return false;
  }
  void Leave() { VInside.store(nullptr); }

  /// True while another thread is inside.
  bool OccupiedByAnother() const;
  /// In a forked child.
  void Renew();

 private:
  static constexpr int POLLS = 100;
  static constexpr useconds_t POLL_MICROSECONDS = 1000;

  static bool ForkToWaitFor();
  static void WaitNoLongerForThisFork();

  /// The mark of the thread inside; of a thread of the parent's, something that is none.
  std::atomic<const void*> VInside{nullptr};
};

/// The opening of a converter.
extern CForkGate VConverterGate;
/// The conversion of a time stamp into local time.
extern CForkGate VLocalTimeGate;
