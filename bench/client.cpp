// What a measured program does, in one of several modes. Every mode prints one JSON object.
//
//   bench_client compare  --calls N --rounds N --threads N NAME NAME...   the calls in turns
//   bench_client latency  --milliseconds N --threads N | --processes N    percentiles of one call
//   bench_client cost     --calls N --rounds N [--no-engine] NAME         one call, many times
//   bench_client heads    --calls N --rounds N --fill N NAME              the same, behind N others
//   bench_client counted  --calls N NAME                                  inside countedCalls()
//   bench_client first                                                    first calls of a process
//   bench_client reconnect                                                a call per line of input
//   bench_client share    --calls N --rounds N --work MICROSECONDS        transactions with work
//   bench_client memory                                                   calls, then a wait
//   bench_client hold     --calls N instances | classes | used            N of them, then the same
//   bench_client spawn    --calls N --rounds N PROGRAM PROGRAM...         programs that end at once

#include <getopt.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Calls.h"
#include "Histogram.h"
#include "Team.h"
#include "arm.h"
#include "ipc/CReplySegment.h"
#include "ipc/EngineObjects.h"
#include "ipc/TIPCIdentifier.h"

extern char** environ;

extern "C" void countedCalls(bench::Call call, unsigned count);

/// The function that an instruction counter is told to look at.
extern "C" __attribute__((noinline)) void countedCalls(bench::Call call, unsigned count) {
  for (; count > 0; --count) call();
}

namespace {

using bench::Call;
using bench::Cost;
using bench::Histogram;
using bench::Team;

constexpr double NANOSECONDS_PER_MICROSECOND = 1000;

struct Settings {
  unsigned calls = 1000;
  unsigned rounds = 7;
  unsigned threads = 1;
  unsigned processes = 0;
  unsigned milliseconds = 200;
  unsigned fill = 0;
  unsigned work = 100;
  bool no_engine = false;
  std::vector<std::string> names;
};

[[noreturn]] void fail(const std::string& why) {
  (void)std::fprintf(stderr, "bench_client: %s\n", why.c_str());
  std::exit(1);
}

Settings parse(int argc, char** argv) {
  Settings settings;
  const std::map<std::string, unsigned*> numbers = {
      {"calls", &settings.calls},     {"rounds", &settings.rounds},
      {"threads", &settings.threads}, {"processes", &settings.processes},
      {"fill", &settings.fill},       {"milliseconds", &settings.milliseconds},
      {"work", &settings.work}};
  std::vector<option> known = {{"no-engine", no_argument, nullptr, 'n'}};
  for (const auto& [name, value] : numbers) {
    known.push_back({name.c_str(), required_argument, nullptr, 'v'});
  }
  known.push_back({nullptr, 0, nullptr, 0});
  int index = 0;
  for (int choice; (choice = getopt_long(argc, argv, "", known.data(), &index)) != -1;) {
    if (choice == 'n') settings.no_engine = true;
    if (choice == 'v') {
      *numbers.at(known[static_cast<std::size_t>(index)].name) =
          static_cast<unsigned>(std::strtoul(optarg, nullptr, 10));
    }
    if (choice == '?') std::exit(2);
  }
  settings.names.assign(argv + optind, argv + argc);
  return settings;
}

Call mustCall(const std::string& name) {
  const Call call = bench::callNamed(name);
  if (call == nullptr) fail("there is no call '" + name + "'");
  return call;
}

void prepare() {
  if (!bench::prepareCalls()) std::exit(1);
}

void repeat(Call call, unsigned count) {
  for (; count > 0; --count) call();
}

/// Prints the rounds of one thing as two arrays, microseconds per call.
void printRounds(const std::string& name, const std::vector<Cost>& rounds, double calls,
                 const char* end) {
  (void)std::printf("\"%s\": {\"elapsed_us\": [", name.c_str());
  const char* separator = "";
  for (const Cost& cost : rounds) {
    (void)std::printf("%s%.4f", separator,
                      static_cast<double>(cost.elapsed) / calls / NANOSECONDS_PER_MICROSECOND);
    separator = ", ";
  }
  (void)std::printf("], \"cpu_us\": [");
  separator = "";
  for (const Cost& cost : rounds) {
    (void)std::printf("%s%.4f", separator,
                      static_cast<double>(cost.cpu) / calls / NANOSECONDS_PER_MICROSECOND);
    separator = ", ";
  }
  (void)std::printf("]}%s", end);
}

/// Rounds in which everything has its turn; a first one that does not count warms up.
using Turns = std::vector<std::vector<Cost>>;
Turns takeTurns(std::size_t things, unsigned rounds, const std::function<Cost(std::size_t)>& turn) {
  Turns costs(things);
  for (unsigned round = 0; round <= rounds; ++round) {
    for (std::size_t i = 0; i < things; ++i) {
      // Every other round backwards, so that nothing always follows the same neighbour.
      const std::size_t thing = round % 2 == 0 ? i : things - 1 - i;
      const Cost cost = turn(thing);
      if (round > 0) costs[thing].push_back(cost);
    }
  }
  return costs;
}

void printTurns(const std::vector<std::string>& names, const Turns& costs, double calls) {
  (void)std::printf("{");
  for (std::size_t i = 0; i < names.size(); ++i) {
    printRounds(names[i], costs[i], calls, i + 1 < names.size() ? ", " : "}\n");
  }
}

int compareCalls(const Settings& settings) {
  std::vector<Call> calls;
  for (const std::string& name : settings.names) calls.push_back(mustCall(name));
  const unsigned each = settings.calls / settings.threads;
  Team team(Team::Kind::threads, settings.threads,
            [&calls, each](unsigned, unsigned thing) { repeat(calls[thing], each); });
  const Turns costs = takeTurns(calls.size(), settings.rounds, [&team](std::size_t thing) {
    return team.run(static_cast<unsigned>(thing));
  });
  printTurns(settings.names, costs, static_cast<double>(each) * settings.threads);
  return 0;
}

int compare(const Settings& settings) {
  prepare();
  return compareCalls(settings);
}

struct Meters {
  std::atomic<bool> stop;
  Histogram histograms[1];  ///< one per worker
};

/// Calls until it is told to stop.
void measureCalls(Meters* meters, unsigned worker, Call call) {
  Histogram& own = meters->histograms[worker];
  int64_t begin = bench::now();
  while (!meters->stop.load(std::memory_order_relaxed)) {
    call();
    const int64_t end = bench::now();
    own.add(static_cast<uint64_t>(end - begin));
    begin = end;
  }
}

int latency(const Settings& settings) {
  prepare();
  const bool forked = settings.processes > 0;
  const unsigned workers = forked ? settings.processes : settings.threads;
  const std::size_t size = sizeof(Meters) + (workers + 1) * sizeof(Histogram);
  auto* meters = static_cast<Meters*>(bench::sharedMemory(size));
  const Call call = mustCall("either");
  Team team(forked ? Team::Kind::processes : Team::Kind::threads, workers,
            [meters, call](unsigned worker, unsigned round) {
              if (round == 0) {
                call();
              } else {
                measureCalls(meters, worker, call);
              }
            });
  (void)team.run(0);
  const Cost cost = team.run(1, [meters, &settings] {
    (void)usleep(settings.milliseconds * 1000);
    meters->stop = true;
  });
  auto* all = static_cast<Histogram*>(bench::sharedMemory(sizeof(Histogram)));
  for (unsigned i = 0; i < workers; ++i) all->add(meters->histograms[i]);
  (void)std::printf("{\"calls\": %llu, \"elapsed_us\": %.1f",
                    static_cast<unsigned long long>(all->total()),
                    static_cast<double>(cost.elapsed) / NANOSECONDS_PER_MICROSECOND);
  for (const auto& [name, share] :
       std::map<const char*, double>{{"p50_us", 0.5}, {"p99_us", 0.99}, {"p999_us", 0.999}}) {
    (void)std::printf(", \"%s\": %.2f", name,
                      static_cast<double>(all->percentile(share)) / NANOSECONDS_PER_MICROSECOND);
  }
  (void)std::printf("}\n");
  return 0;
}

int cost(const Settings& settings) {
  if (!settings.no_engine) prepare();
  const Call call = mustCall(settings.names.at(0));
  Team team(Team::Kind::threads, 1,
            [call, &settings](unsigned, unsigned) { repeat(call, settings.calls); });
  const Turns costs = takeTurns(1, settings.rounds, [&team](std::size_t) { return team.run(0); });
  printTurns({settings.names[0]}, costs, settings.calls);
  return 0;
}

unsigned long segmentSize(int memory) {
  shmid_ds info = {};
  return shmctl(memory, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
}

/// Gives the first records of the reply queue to threads that do not exist, and frees the next.
void fillHeads(unsigned count) {
  std::string path = REPLY_QUEUE_NAME;
  if (const char* prefix = std::getenv("ARM_AGENT_PREFIX")) path += std::string(".") + prefix;
  const int memory = shmget(ftok(path.c_str(), SEGMENT_PROJECT), 0, 0);
  void* address = shmat(memory, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) fail("no reply queue at " + path);
  const CReplySegment<TArmReplyMessage> replies(address, segmentSize(memory));
  if (count >= replies.Capacity()) fail("the reply queue serves fewer threads");
  constexpr uint32_t FIRST_THREAD = 0x7E000000;
  for (unsigned i = 0; i < count; ++i) {
    replies.Head(i).process_id = getpid();
    replies.Head(i).thread_id = FIRST_THREAD + i;
  }
  replies.Head(count).process_id = NULL_IPC_ID.processId;
  replies.Head(count).thread_id = NULL_IPC_ID.threadId;
  replies->heads_in_use = static_cast<uint16_t>(count);
  (void)shmdt(address);
}

int heads(const Settings& settings) {
  // The thread that measures comes later than these, and finds one record left.
  prepare();
  fillHeads(settings.fill);
  return compareCalls(settings);
}

int counted(const Settings& settings) {
  prepare();
  constexpr unsigned WARM_UP = 2;
  const Call call = mustCall(settings.names.at(0));
  repeat(call, WARM_UP);
  countedCalls(call, settings.calls);
  (void)std::printf("{\"calls\": %u}\n", settings.calls);
  return 0;
}

double microsecondsOf(const std::function<void()>& action) {
  const int64_t begin = bench::now();
  action();
  return static_cast<double>(bench::now() - begin) / NANOSECONDS_PER_MICROSECOND;
}

int first(const Settings&) {
  arm_int32_t handle = 0;
  arm_int32_t application = 0;
  const auto start = [&handle] { handle = arm_start(1, 0, nullptr, 0); };
  const auto init = [&application] { application = arm_init("first", "first", 0, nullptr, 0); };
  (void)std::printf("{\"first_start_us\": %.1f", microsecondsOf(start));
  (void)std::printf(", \"second_start_us\": %.1f", microsecondsOf(start));
  (void)std::printf(", \"first_init_us\": %.1f", microsecondsOf(init));
  (void)std::printf(", \"second_init_us\": %.1f}\n", microsecondsOf(init));
  return handle != -2 && application > 0 ? 0 : 1;
}

int reconnect(const Settings&) {
  while (std::getchar() != EOF) {
    arm_int32_t application = 0;
    const double time = microsecondsOf(
        [&application] { application = arm_init("reconnect", "again", 0, nullptr, 0); });
    (void)std::printf("{\"result\": %d, \"us\": %.1f}\n", application, time);
    (void)std::fflush(stdout);
  }
  return 0;
}

/// Work that the compiler cannot leave out, in registers: a processor forgets what it has learnt
/// about memory when it changes to another process, and would learn it again at the cost of the
/// work.
void spin(unsigned long steps) {
  unsigned long value = steps;
  for (; steps > 0; --steps) {
    value = value * 5 + steps;
    __asm__ volatile("" : "+r"(value));
  }
}

unsigned long stepsFor(unsigned microseconds) {
  constexpr unsigned long PROBE = 2'000'000;
  spin(PROBE);
  const double time = microsecondsOf([] { spin(PROBE); });
  return static_cast<unsigned long>(PROBE * (microseconds / time));
}

int share(const Settings& settings) {
  prepare();
  const unsigned long steps = stepsFor(settings.work);
  const Call pair = mustCall("pair");
  enum Thing : unsigned { PLAIN, MEASURED };
  Team team(Team::Kind::threads, 1, [&](unsigned, unsigned thing) {
    for (unsigned i = 0; i < settings.calls; ++i) {
      spin(steps);
      if (thing == MEASURED) pair();
    }
  });
  const Turns costs = takeTurns(2, settings.rounds, [&team](std::size_t thing) {
    return team.run(static_cast<unsigned>(thing));
  });
  printTurns({"plain", "measured"}, costs, settings.calls);
  return 0;
}

int waitForInput() {
  (void)std::puts("{}");
  (void)std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return 0;
}

int memory(const Settings&) {
  prepare();
  repeat(mustCall("arm"), 10);
  return waitForInput();
}

/// Makes open instances of one class, classes, or classes of which each had one instance.
int hold(const Settings& settings) {
  const std::string& kind = settings.names.at(0);
  const arm_int32_t application = arm_init("hold", "hold", 0, nullptr, 0);
  arm_int32_t tran_class = arm_getid(application, "class", "", 0, nullptr, 0);
  for (unsigned i = 0; i < settings.calls; ++i) {
    if (kind != "instances") {
      const std::string name = "class " + std::to_string(i);
      tran_class = arm_getid(application, name.c_str(), "", 0, nullptr, 0);
    }
    arm_int32_t handle = tran_class;
    if (kind != "classes") handle = arm_start(tran_class, 0, nullptr, 0);
    if (kind == "used") handle = arm_stop(handle, ARM_GOOD, 0, nullptr, 0) + 1;
    if (handle <= 0) fail("a call failed");
  }
  return waitForInput();
}

void runProgram(const std::string& path) {
  std::string copy = path;
  char* arguments[] = {copy.data(), nullptr};
  pid_t process = 0;
  int status = 0;
  if (posix_spawn(&process, copy.c_str(), nullptr, nullptr, arguments, environ) != 0) {
    fail("cannot start " + path);
  }
  if (waitpid(process, &status, 0) != process || status != 0) fail(path + " failed");
}

int spawn(const Settings& settings) {
  const Turns costs =
      takeTurns(settings.names.size(), settings.rounds, [&settings](std::size_t thing) {
        const int64_t begin = bench::now();
        for (unsigned i = 0; i < settings.calls; ++i) runProgram(settings.names[thing]);
        return Cost{bench::now() - begin, 0};
      });
  printTurns(settings.names, costs, settings.calls);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, int (*)(const Settings&)> modes = {
      {"compare", compare}, {"latency", latency},     {"cost", cost},   {"heads", heads},
      {"counted", counted}, {"first", first},         {"share", share}, {"memory", memory},
      {"spawn", spawn},     {"reconnect", reconnect}, {"hold", hold},
  };
  const auto mode = modes.find(argc > 1 ? argv[1] : "");
  if (mode == modes.end()) fail("the first argument names a mode");
  const int result = mode->second(parse(argc - 1, argv + 1));
  if (bench::failedCalls() > 0) {
    fail(std::to_string(bench::failedCalls()) + " calls failed, the figures mean nothing");
  }
  return result;
}
