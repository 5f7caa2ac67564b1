// Runs a command and measures it as one transaction.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "armext.h"
#include "armrun/Command.h"
#include "armrun/Measurement.h"
#include "armrun/Options.h"
#include "common/Program.h"

namespace {

using armrun::Measurement;
using armrun::Signals;
using Clock = std::chrono::steady_clock;

/// Waits until the measurement has taken a number of steps in all.  False when it does not in time.
///   signals  those that come meanwhile are delivered; null leaves them where they are
bool waitForStep(const Measurement& measurement, uint64_t step, const Signals* signals,
                 std::chrono::milliseconds limit) {
  static uint64_t taken = 0;
  const auto end = Clock::now() + limit;
  while (taken < step) {
    pollfd events[] = {{measurement.event(), POLLIN, 0},
                       {signals != nullptr ? signals->event() : -1, POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (poll(events, 2, left > 0 ? static_cast<int>(left) : 0) <= 0) return false;
    if (events[1].revents != 0 && !signals->deliver()) signals = nullptr;
    uint64_t count = 0;
    if (events[0].revents == 0) continue;
    if (read(measurement.event(), &count, sizeof count) != sizeof count) return false;
    taken += count;
  }
  return true;
}

/// The environment as it is now.  The library changes this process's own while it works.
std::vector<char*> currentEnvironment() {
  std::vector<char*> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) entries.push_back(*entry);
  return entries;
}

/// Replaces an entry, "NAME=VALUE", or adds it.
void setEntry(std::vector<char*>* environment, const std::string& name, std::string* entry) {
  const auto same_name = [&name](const char* other) {
    return std::strncmp(other, name.c_str(), name.size()) == 0 && other[name.size()] == '=';
  };
  environment->erase(std::remove_if(environment->begin(), environment->end(), same_name),
                     environment->end());
  environment->push_back(entry->data());
}

arm_int32_t completionStatus(const armrun::Ending& ending) {
  if (ending.by_signal) return ARM_ABORT;
  return ending.value == 0 ? ARM_GOOD : ARM_FAILED;
}

[[noreturn]] void run(const armrun::Options& options) {
  std::vector<char*> environment = currentEnvironment();
  const std::string key = arm_getCorrelatorKey();
  const Signals signals;
  Measurement& measurement = Measurement::begin(options, std::getenv(key.c_str()));
  (void)waitForStep(measurement, Measurement::STARTED, &signals, options.wait);
  const std::string problem = measurement.problem();
  if (options.verbose && !problem.empty()) {
    armtools::complain("armrun", "not measured: " + problem, 0);
  }
  // Without a correlator of its own, the command is a child of the nearest transaction known.
  const std::string correlator = measurement.correlator();
  std::string entry = key + "=" + correlator;
  if (!correlator.empty()) setEntry(&environment, key, &entry);
  environment.push_back(nullptr);
  armrun::Command command(options.command, environment.data(), signals);
  const armrun::Ending ending = command.waitForEnd();
  measurement.end(completionStatus(ending));
  (void)waitForStep(measurement, Measurement::STOPPED, nullptr, options.wait);
  armrun::endLike(ending);
}

}  // namespace

int main(int count, char** arguments) {
  const armrun::Options options = armrun::parseOptions(count, arguments);
  if (options.help || options.version) {
    (void)std::fputs(options.help ? armrun::helpText() : armtools::versionText("armrun").c_str(),
                     stdout);
    if (options.version) (void)std::fputs("\n", stdout);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : armrun::FAILED;
  }
  if (!options.error.empty()) {
    return armtools::complain("armrun", options.error, armrun::FAILED);
  }
  run(options);
}
