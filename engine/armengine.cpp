// The engine in the foreground: serves until SIGINT, SIGTERM or SIGHUP.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "program/Options.h"
#include "program/Service.h"
#include "registry/Report.h"

namespace {

constexpr int REFUSED = 1;
constexpr int BAD_INPUT = 2;

sigset_t endingSignals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) (void)sigaddset(&signals, signal);
  return signals;
}

/// Waits for an ending signal in a thread of its own and then interrupts the request queue.  The
/// signals must be blocked before any thread is made.
class SignalWaiter {
 public:
  explicit SignalWaiter(armengine::RequestReader& requests)
      : thread_([&requests] {
          const sigset_t signals = endingSignals();
          int signal = 0;
          (void)sigwait(&signals, &signal);
          requests.interrupt();
        }) {}
  ~SignalWaiter() {
    (void)pthread_kill(thread_.native_handle(), SIGINT);
    thread_.join();
  }
  SignalWaiter(const SignalWaiter&) = delete;
  SignalWaiter& operator=(const SignalWaiter&) = delete;

 private:
  std::thread thread_;
};

int complain(const std::string& sentence, int status) {
  (void)std::fprintf(stderr, "armengine: %s\n", sentence.c_str());
  return status;
}

/// A number that tells this run from every other one.
uint64_t runNumber() {
  std::random_device random;
  return uint64_t{random()} << 32 | random();
}

void announce(const armengine::CommandLine& line, const armengine::EngineQueues& queues) {
  (void)std::printf("armengine: serving %s (process %d, %u requests, %u requesters)\n",
                    queues.controlFile().c_str(), static_cast<int>(getpid()),
                    unsigned{line.queues.requests}, unsigned{line.queues.requesters});
  (void)std::fflush(stdout);
}

bool serve(const armengine::CommandLine& line, armengine::EngineQueues& queues,
           armengine::Registry& registry) {
  armengine::Dispatcher dispatcher(registry);
  armengine::Service service(queues, dispatcher);
  const SignalWaiter waiter(queues.requests());
  announce(line, queues);
  return service.run();
}

int run(const armengine::CommandLine& line) {
  const sigset_t signals = endingSignals();
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A reader of our output that goes away must not leave the queues behind.
  (void)signal(SIGPIPE, SIG_IGN);
  std::string why;
  auto queues = armengine::EngineQueues::create(line.queues, &why);
  if (queues == nullptr) return complain(why, REFUSED);
  armengine::Registry registry(runNumber());
  const bool interrupted = serve(line, *queues, registry);
  queues.reset();
  if (line.report) (void)std::fputs(armengine::makeReport(registry).c_str(), stdout);
  if (!interrupted) return complain("the queues were stopped or removed from outside", REFUSED);
  return std::fflush(stdout) == 0 ? 0 : complain("the report could not be written", REFUSED);
}

}  // namespace

int main(int count, char** arguments) {
  const armengine::CommandLine line = armengine::parseCommandLine(count - 1, arguments + 1);
  if (!line.error.empty()) return complain(line.error, BAD_INPUT);
  if (line.help) {
    (void)std::fputs(armengine::helpText().c_str(), stdout);
    return 0;
  }
  return run(line);
}
