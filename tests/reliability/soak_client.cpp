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

constexpr int32_t NO_ENGINE = -2;
constexpr int32_t FULL = -8;
constexpr int32_t FAILED = -9;
constexpr int32_t UNKNOWN_APPLICATION = -101;
constexpr int32_t UNKNOWN_CLASS = -102;
constexpr int32_t UNKNOWN_HANDLE = -103;
/// Any number that an engine gives.
constexpr int32_t NUMBER = 1;

constexpr int TRANSACTIONS_PER_SESSION = 40;
constexpr size_t CORRELATOR_CLASS = 12;
constexpr size_t CORRELATOR_HANDLE = 16;

enum CallNumber {
  INIT,
  GETID,
  START,
  UPDATE,
  REPORT,
  PROGRESS,
  COMPLETE,
  END_INSTANCE,
  METRIC,
  STOP,
  END
};

int32_t bigEndian(const unsigned char* bytes) {
  return static_cast<int32_t>(uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 |
                              uint32_t{bytes[2]} << 8 | uint32_t{bytes[3]});
}

bool failedForWantOfAnEngine(int32_t result) {
  return result == NO_ENGINE || result == FULL || result == FAILED;
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
    if (!make(INIT, NUMBER, application, [] { return arm_init("soak", "user", 0, nullptr, 0); }))
      return false;
    const auto get_class = [&] { return arm_getid(application, "order", "d", 0, nullptr, 0); };
    if (!make(GETID, NUMBER, class_, get_class)) return false;
    for (int i = 0; i < TRANSACTIONS_PER_SESSION && !isOver(); ++i) {
      if (!transaction(i)) return false;
      if (board_.epoch.load() != epoch_) return true;
    }
    return make(END, 0, [&] { return arm_end(application, 0, nullptr, 0); }) &&
           make(GETID, UNKNOWN_APPLICATION, get_class);
  }

  bool transaction(int number) {
    int32_t handle = 0;
    if (!startOne(handle)) return false;
    const auto update_it = [&] { return arm_update(handle, 0, nullptr, 0); };
    const bool goes =
        make(UPDATE, UNKNOWN_HANDLE, [] { return arm_update(0x7ffffff0, 0, nullptr, 0); }) &&
        make(UPDATE, 0, update_it) &&
        make(START, UNKNOWN_CLASS, [&] { return arm_start(handle, 0, nullptr, 0); }) &&
        make(PROGRESS, 0,
             [&] { return arm_transactionInstanceReport(handle, 0, nullptr, 0, 1, number, 0, 0); });
    if (!goes) return false;
    const bool counted = number % 4 != 1 || finish(REPORT, [&] {
                           return arm_transactionReport(class_, 0, nullptr, 0, 1, ARM_GOOD, 1, 0);
                         });
    if (!counted || !make(METRIC, 0, [&] { return arm_associateMetricData(handle, "data", 4); }))
      return false;
    if (number % 8 == 3 &&
        !make(COMPLETE, 0, [&] { return arm_completeTransaction(class_, 1, 1); }))
      return false;
    const bool stopped =
        number % 2 == 0 ? finish(STOP, [&] { return arm_stop(handle, ARM_GOOD, 0, nullptr, 0); })
                        : finish(END_INSTANCE, [&] {
                            return arm_completeTransactionInstance(handle, ARM_GOOD, 0);
                          });
    return stopped && make(UPDATE, UNKNOWN_HANDLE, update_it);
  }

  /// Starts a transaction below the last one; its correlator names the own class and the handle.
  bool startOne(int32_t& handle) {
    block_.format = ARM_DATA_FORMAT_1;
    block_.flags[0] = ARM_CorrReq_f | (has_parent_ ? ARM_CorrPar_f : 0);
    if (!make(START, NUMBER, handle, [&] { return arm_start(class_, 0, &block_, sizeof block_); }))
      return false;
    has_parent_ = true;
    const int32_t named = bigEndian(block_.correlator.bytes + CORRELATOR_CLASS);
    const int32_t started = bigEndian(block_.correlator.bytes + CORRELATOR_HANDLE);
    if (named != class_) wrong(START, class_, named);
    if (started != handle) wrong(START, handle, started);
    return true;
  }

  /// A call after which the engine counts an instance.
  bool finish(CallNumber number, const std::function<int32_t()>& call) {
    // First possible: a killed program cannot say what became of its call.
    armtest::Life& life = board_.lives[epoch_ / 2 % armtest::LIVES];
    life.possible.fetch_add(1);
    const bool changing = epoch_ % 2 != 0;
    if (changing) board_.lives[(epoch_ / 2 + 1) % armtest::LIVES].possible.fetch_add(1);
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
    const bool right = expected == NUMBER ? result > 0 : result == expected;
    if (right) {
      slot_.answered.fetch_add(1);
      return true;
    }
    const uint32_t after = board_.epoch.load();
    if (after != epoch_ || after % 2 != 0) {
      // The next engine may have answered, who does not know the ids of the last one.
      const bool known = failedForWantOfAnEngine(result) || result == UNKNOWN_APPLICATION ||
                         result == UNKNOWN_CLASS || result == UNKNOWN_HANDLE;
      if (!known) wrong(number, expected, result);
      slot_.disturbed.fetch_add(1);
    } else if (result == NO_ENGINE) {
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
    constexpr uint32_t WARM_UP = 100;
    for (size_t i = 0; i < now.size(); ++i) {
      if (now[i] - before[i] < WARM_UP) return false;
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
                       armtest::BOARD_DESCRIPTOR, 0);
  if (mapping == MAP_FAILED || first + threads > armtest::SLOTS) return 3;
  Team team(*static_cast<SoakBoard*>(mapping), first, threads, calls);
  team.join();
  if (segmentMappings() > 2) return 1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  constexpr long GROWTH = 512;
  if (team.growth() > GROWTH) return 2;
#endif
  return 0;
}
