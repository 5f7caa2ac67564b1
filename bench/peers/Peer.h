#pragma once

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

/// Sizes of a request and of its answer, those of the engine's records.
inline constexpr std::size_t REQUEST_SIZE = 4116;
inline constexpr std::size_t ANSWER_SIZE = 528;

/// Something that a program could use instead of the library, with its other side running in a
/// process of its own where it has one.
class Peer {
 public:
  Peer() = default;
  virtual ~Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// One request and its answer, or one event that nobody answers.
  virtual void exchange() = 0;
  /// Called before and after a run of exchanges.
  virtual void begin() {}
  virtual void end() {}
};

struct NamedPeer {
  std::string name;
  std::unique_ptr<Peer> peer;
};

/// The library itself, and the bare client; an engine must be running.
std::vector<NamedPeer> makeArmPeers();
/// Pipe, sockets, message queue, shared memory.
std::vector<NamedPeer> makeKernelPeers();
/// D-Bus, directly and through a daemon that is started for it.
std::vector<NamedPeer> makeBusPeers();
/// What does not wait for an answer. With a trace session, the tracepoint is also measured with the
/// session recording.
std::vector<NamedPeer> makeEventPeers(bool trace_session);

/// Ends the program with a message about what failed.
[[noreturn]] void failPeer(const char* what);

/// Forks a process that serves until this program ends.
template <typename Body>
void forkServer(Body body) {
  const pid_t process = fork();
  if (process < 0) failPeer("fork");
  if (process > 0) return;
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  body();
  _exit(0);
}

}  // namespace bench
