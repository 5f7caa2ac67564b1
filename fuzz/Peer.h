#pragma once

#include <sys/sem.h>

#include <cstddef>

/// The other processes of the machine, as the library meets them: everything they do happens at the
/// library's own System V calls, on its own thread, so that an input always means the same.
///
/// The linker leads the calls of library and engine (semop, semctl, shmat, shmdt) to Peer.cpp.
/// There a wait never sleeps: when it would, the peer acts until it no longer would.  Segments are
/// attached with unmapped memory on both sides, and the rest of their last page is poisoned, so
/// that an access beside a segment ends the process.
class Peer {
 public:
  virtual ~Peer() = default;
  /// Called before each call of the library.
  virtual void act() = 0;
  /// A wait of the library on a set would sleep.  Must in the end raise the semaphore or remove the
  /// set.
  virtual void release(int set, const sembuf& wait) = 0;
  /// How many threads seem to sleep on a semaphore; negative leaves the kernel's answer.
  virtual int sleepers() = 0;
};

/// Makes a peer the current one, or none.  Without one, calls go straight to the kernel.
void setPeer(Peer* peer);

/// While it lives, the calls of this thread are the peer's own and go straight to the kernel.
class PeerActs {
 public:
  PeerActs();
  ~PeerActs();
  PeerActs(const PeerActs&) = delete;
  PeerActs& operator=(const PeerActs&) = delete;

 private:
  bool before_;
};
