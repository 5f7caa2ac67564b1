// A program that measures: every thread registers itself, starts, reports, updates and stops
// transactions, and compares each answer with the one that it must get. Consecutive calls of a
// thread have different answers, so that one that belongs to another call shows.
//
//   soak_client FIRST-SLOT THREADS CALLS     CALLS per thread, 0 until the board says stop
//
// The board comes in on descriptor 3. Engines may come and go meanwhile. At the end: 1 when the
// process has other mappings of segments than those of the one connection, 2 when its memory has
// grown by more than half a megabyte since its first calls.

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "armext.h"
#include "soak_board.h"

namespace {

using armtest::Slot;
using armtest::SoakBoard;

constexpr int32_t kNoEngine = -2;
constexpr int32_t kFull = -8;
constexpr int32_t kFailed = -9;
constexpr int32_t kUnknownApplication = -101;
constexpr int32_t kUnknownClass = -102;
constexpr int32_t kUnknownHandle = -103;
/// Any number that an engine gives.
constexpr int32_t kNumber = 1;

constexpr int kTransactionsPerSession = 40;
constexpr size_t kCorrelatorClass = 12;
constexpr size_t kCorrelatorHandle = 16;

enum CallNumber {
  init,
  getid,
  start,
  update,
  report,
  progress,
  complete,
  end_instance,
  metric,
  stop,
  end
};

int32_t bigEndian(const unsigned char* bytes) {
  return static_cast<int32_t>(uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 |
                              uint32_t{bytes[2]} << 8 | uint32_t{bytes[3]});
}

bool failedForWantOfAnEngine(int32_t result) {
  return result == kNoEngine || result == kFull || result == kFailed;
}

/// One thread.
class Worker {
 public:
  Worker(SoakBoard& board, Slot& slot, uint32_t calls)
      : board_(board), slot_(slot), calls_(calls) {}

  void run() {
    while (!isOver()) {
      if (!session()) usleep(500);
    }
    slot_.rests.store(1);
  }

 private:
  bool isOver() const { return board_.stop.load() != 0 || (calls_ != 0 && made_ >= calls_); }

  /// An application from its registration to its end; false when an engine got lost.
  bool session() {
    epoch_ = board_.epoch.load();
    int32_t application = 0;
    if (!make(init, kNumber, application, [] { return arm_init("soak", "user", 0, nullptr, 0); }))
      return false;
    const auto getClass = [&] { return arm_getid(application, "order", "d", 0, nullptr, 0); };
    if (!make(getid, kNumber, class_, getClass)) return false;
    for (int i = 0; i < kTransactionsPerSession && !isOver(); ++i) {
      if (!transaction(i)) return false;
      if (board_.epoch.load() != epoch_) return true;
    }
    return make(end, 0, [&] { return arm_end(application, 0, nullptr, 0); }) &&
           make(getid, kUnknownApplication, getClass);
  }

  bool transaction(int number) {
    int32_t handle = 0;
    if (!startOne(handle)) return false;
    const auto updateIt = [&] { return arm_update(handle, 0, nullptr, 0); };
    const bool goes =
        make(update, kUnknownHandle, [] { return arm_update(0x7ffffff0, 0, nullptr, 0); }) &&
        make(update, 0, updateIt) &&
        make(start, kUnknownClass, [&] { return arm_start(handle, 0, nullptr, 0); }) &&
        make(progress, 0,
             [&] { return arm_transactionInstanceReport(handle, 0, nullptr, 0, 1, number, 0, 0); });
    if (!goes) return false;
    const bool counted = number % 4 != 1 || finish(report, [&] {
                           return arm_transactionReport(class_, 0, nullptr, 0, 1, ARM_GOOD, 1, 0);
                         });
    if (!counted || !make(metric, 0, [&] { return arm_associateMetricData(handle, "data", 4); }))
      return false;
    if (number % 8 == 3 &&
        !make(complete, 0, [&] { return arm_completeTransaction(class_, 1, 1); }))
      return false;
    const bool stopped =
        number % 2 == 0 ? finish(stop, [&] { return arm_stop(handle, ARM_GOOD, 0, nullptr, 0); })
                        : finish(end_instance, [&] {
                            return arm_completeTransactionInstance(handle, ARM_GOOD, 0);
                          });
    return stopped && make(update, kUnknownHandle, updateIt);
  }

  /// Starts a transaction below the last one; its correlator names the own class and the handle.
  bool startOne(int32_t& handle) {
    block_.format = ARM_DATA_FORMAT_1;
    block_.flags[0] = ARM_CorrReq_f | (has_parent_ ? ARM_CorrPar_f : 0);
    if (!make(start, kNumber, handle, [&] { return arm_start(class_, 0, &block_, sizeof block_); }))
      return false;
    has_parent_ = true;
    const int32_t named = bigEndian(block_.correlator.bytes + kCorrelatorClass);
    const int32_t started = bigEndian(block_.correlator.bytes + kCorrelatorHandle);
    if (named != class_) wrong(start, class_, named);
    if (started != handle) wrong(start, handle, started);
    return true;
  }

  /// A call after which the engine counts an instance.
  bool finish(CallNumber number, const std::function<int32_t()>& call) {
    // First possible: a killed program cannot say what became of its call.
    armtest::Life& life = board_.lives[epoch_ / 2 % armtest::kLives];
    life.possible.fetch_add(1);
    const bool changing = epoch_ % 2 != 0;
    if (changing) board_.lives[(epoch_ / 2 + 1) % armtest::kLives].possible.fetch_add(1);
    const bool finished = make(number, 0, call);
    if (finished && !changing) {
      life.confirmed.fetch_add(1);
      life.possible.fetch_sub(1);
    }
    return finished;
  }

  bool make(CallNumber number, int32_t expected, const std::function<int32_t()>& call) {
    int32_t result = 0;
    return make(number, expected, result, call);
  }

  /// Makes a call; false when it failed since engines change.
  bool make(CallNumber number, int32_t expected, int32_t& result,
            const std::function<int32_t()>& call) {
    waitWhilePaused();
    ++made_;
    result = call();
    const bool right = expected == kNumber ? result > 0 : result == expected;
    if (right) {
      slot_.answered.fetch_add(1);
      return true;
    }
    const uint32_t after = board_.epoch.load();
    if (after != epoch_ || after % 2 != 0) {
      // The next engine may have answered, who does not know the ids of the last one.
      const bool known = failedForWantOfAnEngine(result) || result == kUnknownApplication ||
                         result == kUnknownClass || result == kUnknownHandle;
      if (!known) wrong(number, expected, result);
      slot_.disturbed.fetch_add(1);
    } else if (result == kNoEngine) {
      // Another thread closes the connection to the engine before, which it has seen dead.
      slot_.reconnecting.fetch_add(1);
    } else {
      wrong(number, expected, result);
    }
    return false;
  }

  void waitWhilePaused() {
    if (board_.pause.load() == 0) return;
    slot_.rests.store(1);
    while (board_.pause.load() != 0) usleep(1000);
    slot_.rests.store(0);
  }

  void wrong(CallNumber number, int32_t expected, int32_t result) {
    if (board_.wrong.count.fetch_add(1) != 0) return;
    board_.wrong.call.store(number);
    board_.wrong.expected.store(expected);
    board_.wrong.result.store(result);
  }

  SoakBoard& board_;
  Slot& slot_;
  uint32_t calls_;
  uint32_t made_ = 0;
  uint32_t epoch_ = 0;
  int32_t class_ = 0;
  bool has_parent_ = false;
  arm_user_data1_t block_ = {};
};

unsigned segmentMappings() {
  std::ifstream maps("/proc/self/maps");
  unsigned count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("SYSV") != std::string::npos) ++count;
  }
  return count;
}

/// Memory of the process's own, in KiB.
long ownMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long kilobytes = 0;
    if (word == "RssAnon:" && status >> kilobytes) return kilobytes;
  }
  return 0;
}

class Team {
 public:
  Team(SoakBoard& board, unsigned first, unsigned threads, uint32_t calls) : board_(board) {
    const std::vector<uint32_t> before = answered(first, threads);
    for (unsigned i = 0; i < threads; ++i) {
      running_.emplace_back([this, slot = first + i, calls] {
        Worker(board_, board_.slots[slot], calls).run();
        over_.fetch_add(1);
      });
    }
    // Until each thread has made every call: whatever a call leaves behind once is there then.
    while (over_.load() == 0 && !haveAllAnswered(before, answered(first, threads))) usleep(1000);
    memory_ = ownMemory();
  }

  void join() {
    for (std::thread& thread : running_) thread.join();
  }

  long growth() const { return ownMemory() - memory_; }

 private:
  std::vector<uint32_t> answered(unsigned first, unsigned threads) const {
    std::vector<uint32_t> counts;
    for (unsigned i = 0; i < threads; ++i)
      counts.push_back(board_.slots[first + i].answered.load());
    return counts;
  }

  static bool haveAllAnswered(const std::vector<uint32_t>& before,
                              const std::vector<uint32_t>& now) {
    constexpr uint32_t kWarmUp = 100;
    for (size_t i = 0; i < now.size(); ++i) {
      if (now[i] - before[i] < kWarmUp) return false;
    }
    return true;
  }

  SoakBoard& board_;
  std::vector<std::thread> running_;
  std::atomic<unsigned> over_{0};
  long memory_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 3;
  const auto first = static_cast<unsigned>(std::atoi(argv[1]));
  const auto threads = static_cast<unsigned>(std::atoi(argv[2]));
  const auto calls = static_cast<uint32_t>(std::atoi(argv[3]));
  void* mapping = mmap(nullptr, sizeof(SoakBoard), PROT_READ | PROT_WRITE, MAP_SHARED,
                       armtest::kBoardDescriptor, 0);
  if (mapping == MAP_FAILED || first + threads > armtest::kSlots) return 3;
  Team team(*static_cast<SoakBoard*>(mapping), first, threads, calls);
  team.join();
  if (segmentMappings() > 2) return 1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  constexpr long kGrowth = 512;
  if (team.growth() > kGrowth) return 2;
#endif
  return 0;
}
