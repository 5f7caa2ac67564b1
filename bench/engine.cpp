// An engine that only answers, with habits that can be chosen. Prints "ready" when programs can
// connect, and serves until it is killed.
//
//   bench_engine [--requests N] [--heads N] [--batch N] [--raise locked|after|together] [--remember]

#include <getopt.h>
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Road.h"
#include "core/EngineQueues.h"

namespace {

struct Settings {
  armengine::EngineOptions queues;
  bench::Habits habits;
};

bench::Raise raiseOf(const std::string& name) {
  if (name == "after") return bench::Raise::after;
  return name == "together" ? bench::Raise::together : bench::Raise::locked;
}

Settings parse(int argc, char** argv) {
  static const option KNOWN[] = {
      {"requests", required_argument, nullptr, 'q'}, {"heads", required_argument, nullptr, 'h'},
      {"batch", required_argument, nullptr, 'b'},    {"raise", required_argument, nullptr, 'r'},
      {"remember", no_argument, nullptr, 'm'},       {nullptr, 0, nullptr, 0}};
  Settings settings;
  for (int choice; (choice = getopt_long(argc, argv, "", KNOWN, nullptr)) != -1;) {
    if (choice == 'q') settings.queues.requests = static_cast<uint16_t>(std::atoi(optarg));
    if (choice == 'h') settings.queues.requesters = static_cast<uint16_t>(std::atoi(optarg));
    if (choice == 'b') settings.habits.batch = static_cast<unsigned>(std::atoi(optarg));
    if (choice == 'r') settings.habits.raise = raiseOf(optarg);
    if (choice == 'm') settings.habits.remember = true;
    if (choice == '?') std::exit(2);
  }
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Settings settings = parse(argc, argv);
  std::string why;
  const auto queues = armengine::EngineQueues::create(settings.queues, &why);
  if (queues == nullptr) {
    (void)std::fprintf(stderr, "bench_engine: %s\n", why.c_str());
    return 1;
  }
  bench::Road road(settings.habits);
  if (!road.isInitialized()) return 1;
  (void)std::puts("ready");
  (void)std::fflush(stdout);
  while (road.serve()) {
  }
  return 0;
}
