// The engine in the foreground: serves until SIGINT or SIGTERM.  SIGHUP opens its files again.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "dispatch/Replay.h"
#include "program/LockWatch.h"
#include "program/Log.h"
#include "program/Options.h"
#include "program/Outputs.h"
#include "program/Service.h"
#include "report/Report.h"

namespace {

constexpr int REFUSED = 1;
constexpr int BAD_INPUT = 2;

sigset_t awaitedSignals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) (void)sigaddset(&signals, signal);
  return signals;
}

/// Waits for signals in a thread of its own: one that ends the engine interrupts the request queue,
/// SIGHUP opens the files again.  The signals must be blocked before any thread is made.
class SignalWaiter {
 public:
  SignalWaiter(armengine::RequestReader& requests, armengine::Outputs& outputs)
      : thread_([&requests, &outputs] {
          const sigset_t signals = awaitedSignals();
          int signal = SIGHUP;
          while (sigwait(&signals, &signal) == 0 && signal == SIGHUP) outputs.reopen();
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
  armengine::writeLog(armengine::Urgency::error, sentence);
  return status;
}

/// A number that tells this run from every other one.
uint64_t runNumber() {
  std::random_device random;
  return uint64_t{random()} << 32 | random();
}

/// Where words go that are no output.
std::FILE* wordsOf(const armengine::CommandLine& line) {
  return line.outputs.events == "-" ? stderr : stdout;
}

void announce(const armengine::CommandLine& line, const armengine::EngineQueues& queues,
              const std::string& url) {
  std::FILE* words = wordsOf(line);
  (void)std::fprintf(words, "armengine: serving %s (process %d, %u requests, %u requesters)\n",
                     queues.controlFile().c_str(), static_cast<int>(getpid()),
                     unsigned{line.queues.requests}, unsigned{line.queues.requesters});
  if (!url.empty()) (void)std::fprintf(words, "armengine: listening on %s\n", url.c_str());
  (void)std::fflush(words);
  armengine::notifyManager("READY=1");
}

bool serve(const armengine::CommandLine& line, armengine::EngineQueues& queues,
           armengine::Registry& registry, armengine::Outputs& outputs) {
  armengine::ProcessWatch watch;
  armengine::Dispatcher dispatcher(registry, &outputs.events(), &watch);
  armengine::Service service(queues, dispatcher);
  const SignalWaiter waiter(queues.requests(), outputs);
  const armengine::LockWatch locks(queues);
  outputs.show(&queues);
  announce(line, queues, outputs.url());
  const bool interrupted = service.run();
  armengine::notifyManager("STOPPING=1");
  outputs.show(nullptr);
  return interrupted;
}

int run(const armengine::CommandLine& line) {
  const sigset_t signals = awaitedSignals();
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A reader of our output that goes away must not leave the queues behind.
  (void)signal(SIGPIPE, SIG_IGN);
  std::string why;
  const uint64_t run_number = runNumber();
  armengine::Registry registry(run_number, line.registry);
  // Numbers of an earlier run, which applications may still hold, must not name what this one
  // gives.
  registry.continueAfter(static_cast<int32_t>(run_number >> 33));
  auto outputs = armengine::Outputs::open(line.outputs, registry, &why);
  if (outputs == nullptr) return complain(why, REFUSED);
  auto queues = armengine::EngineQueues::create(line.queues, &why);
  if (queues == nullptr) return complain(why, REFUSED);
  const bool interrupted = serve(line, *queues, registry, *outputs);
  // Programs go on at once; what the outputs still have takes its time.
  queues.reset();
  const auto recent = outputs->finish();
  outputs.reset();
  std::FILE* words = wordsOf(line);
  if (line.outputs.report) {
    (void)std::fputs(armengine::makeReport(registry, *recent).c_str(), words);
  }
  if (!interrupted) return complain("the queues were stopped or removed from outside", REFUSED);
  return std::fflush(words) == 0 ? 0 : complain("the report could not be written", REFUSED);
}

void complainOfGaps(const armengine::Replayed& replayed) {
  const auto tell = [](uint64_t count, const char* what) {
    if (count == 0) return;
    armengine::writeLog(armengine::Urgency::warning, std::to_string(count) + what);
  };
  tell(replayed.missing, " events were dropped when the file was written: the table is incomplete");
  tell(replayed.unreadable, " lines are no events and were left out");
  tell(replayed.different, " events gave another answer than they did then");
}

int replay(const armengine::CommandLine& line) {
  std::ifstream file;
  if (line.replay != "-") {
    file.open(line.replay);
    if (!file) return complain("cannot read " + line.replay, REFUSED);
  }
  std::istream& lines = line.replay == "-" ? std::cin : file;
  const armengine::Replayed replayed = armengine::replayEvents(lines, line.registry);
  if (replayed.registry == nullptr)
    return complain("there are no events in " + line.replay, REFUSED);
  (void)std::fputs(armengine::makeReport(*replayed.registry, *replayed.recent).c_str(), stdout);
  complainOfGaps(replayed);
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
  return line.replay.empty() ? run(line) : replay(line);
}
