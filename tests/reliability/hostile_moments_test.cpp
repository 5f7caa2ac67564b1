// Everything that an engine owns removed, or replaced, while a call stands before or after each of
// its System V calls: it ends with -2, -8, -9 or a reply that was there, and so do the calls after
// it.

#include <sys/ipc.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CallTest.h"
#include "counted.h"
#include "hostile_calls.h"
#include "hostile_queues.h"
#include "ipcobjects.h"
#include "kill_points.h"
#include "kill_tracer.h"
#include "shared.h"

namespace armtest {
namespace {

constexpr size_t CALLS = 3;
constexpr const char* END_OF_FIRST_CALL = "stat first";

/// The hand-laid queues of the moment, or none.
using Laid = std::unique_ptr<HostileQueues>;

struct Removal {
  std::string name;
  std::function<void(Laid&)> act;
};

void replaceBy(Laid& laid, const Layout& layout) {
  laid.reset();
  laid = std::make_unique<HostileQueues>(layout);
}

Layout ofSizes(size_t requests, size_t replies) {
  Layout layout;
  layout.requests = requests;
  layout.replies = replies;
  return layout;
}

Layout ofSegments(long request_size, long reply_size) {
  Layout layout;
  layout.request_size = request_size;
  layout.reply_size = reply_size;
  return layout;
}

Layout ofSingleSemaphores() {
  Layout layout;
  for (int* count :
       {&layout.request_lock, &layout.reply_lock, &layout.empty, &layout.overflow, &layout.waits}) {
    *count = 1;
  }
  return layout;
}

std::vector<Removal> removals() {
  std::vector<Removal> all;
  const char* const sets[] = {"request lock", "reply lock", "_emp", "_ovr", "wake-up"};
  for (size_t set = 0; set < 5; ++set) {
    all.push_back(
        {std::string(sets[set]) + " set removed", [set](Laid& laid) { laid->removeSet(set); }});
  }
  for (size_t segment = 0; segment < 2; ++segment) {
    all.push_back({segment == 0 ? "request segment removed" : "reply segment removed",
                   [segment](Laid& laid) { laid->removeSegment(segment); }});
  }
  all.push_back({"name files removed", [](Laid&) {
                   for (const char* suffix : {"_mem", "_emp", "_ovr"}) {
                     (void)unlink((AE + suffix).c_str());
                   }
                   (void)unlink(EA.c_str());
                 }});
  all.push_back({"everything removed", [](Laid& laid) { laid.reset(); }});
  const std::pair<const char*, Layout> replacements[] = {
      {"smaller queues", ofSizes(1, 1)},
      {"larger queues", ofSizes(9, 17)},
      {"segments smaller than their headers", ofSegments(27, 11)},
      {"segments without room for a record", ofSegments(28, 12)},
      {"sets of one semaphore", ofSingleSemaphores()}};
  for (const auto& [name, layout] : replacements) {
    all.push_back({std::string("replaced by ") + name,
                   [layout = layout](Laid& laid) { replaceBy(laid, layout); }});
  }
  return all;
}

/// While it lives, whoever sleeps in a set of these queues is released by their removal: the
/// contract says that it waits.
class Releaser {
 public:
  explicit Releaser(const Laid& laid) : thread_([this, &laid] { run(laid); }) {}
  ~Releaser() {
    stop_.store(true);
    thread_.join();
  }
  Releaser(const Releaser&) = delete;
  Releaser& operator=(const Releaser&) = delete;

 private:
  void run(const Laid& laid) {
    for (; !stop_.load(); usleep(1)) {
      if (laid != nullptr && laid->sleepers() > 0) laid->removeSets();
    }
  }

  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct MomentsBoard {
  std::atomic<int32_t> results[CALLS];
};

class HostileMoments : public testing::TestWithParam<bool> {
 protected:
  static constexpr int32_t NOT_CALLED = 1;

  /// A process that makes three calls, and has three replies that it may get.
  std::unique_ptr<TracedProcess> makeCaller() {
    for (auto& result : board_->results) result.store(NOT_CALLED);
    laid_.reset();
    laid_ = std::make_unique<HostileQueues>();
    return std::make_unique<TracedProcess>(
        [this] {
          laid_->answer(static_cast<uint32_t>(getpid()), ownThreadWord(), 3);
          if (GetParam() && arm_update(5, 0, nullptr, 0) != MARKED_RESULT) _exit(9);
        },
        [this] { return callThrice(); });
  }

  int callThrice() {
    Host host;
    int broken = 0;
    for (size_t i = 0; i < CALLS; ++i) {
      fillHost(host);
      // The first of these posts with the host's block.
      board_->results[i].store(callNumber(postingCalls().size() + i, host));
      if (!hostIsWhole(host)) ++broken;
      if (i == 0) (void)ftok(controlPath("first").c_str(), 1);
    }
    return broken;
  }

  std::vector<Point> pointsOfTheFirstCall() {
    const auto caller = makeCaller();
    std::vector<Point> points = pointsOf(*caller, END_OF_FIRST_CALL);
    points.pop_back();
    EXPECT_EQ(MARKED_RESULT, board_->results[0].load());
    return points;
  }

  void expectAllowedEnd(TracedProcess& caller) {
    {
      const Releaser releaser(laid_);
      EXPECT_EQ(0, caller.release());
    }
    for (const auto& stored : board_->results) {
      EXPECT_TRUE(isAllowedOnDamage(stored.load())) << stored.load();
    }
    if (laid_ != nullptr) {
      EXPECT_TRUE(laid_->marginsUntouched());
    }
  }

  Shared<MomentsBoard> board_;
  Laid laid_;
};

TEST_P(HostileMoments, RemovalsAtAnyOfACallsSystemVCallsEndItWithACode) {
  const std::vector<Removal> all = removals();
  const std::vector<Point> points = pointsOfTheFirstCall();
  ASSERT_LT(10U, points.size());
  unsigned rounds = 0;
  for (size_t which = 0; which < all.size(); ++which) {
    for (const Point& point : everyNth(points, which)) {
      SCOPED_TRACE(all[which].name + " " + nameOf(point));
      const auto caller = makeCaller();
      ASSERT_TRUE(runTo(*caller, point));
      all[which].act(laid_);
      expectAllowedEnd(*caller);
      if (HasFailure()) return;
      ++rounds;
    }
  }
  counted(GetParam()
              ? "removed or replaced at any System V call of a call"
              : "removed or replaced at any System V call of a call that opens the connection",
          rounds);
}

std::string nameOfCaller(const testing::TestParamInfo<bool>& caller) {
  return caller.param ? "connected" : "connecting";
}

INSTANTIATE_TEST_SUITE_P(Callers, HostileMoments, testing::Bool(), nameOfCaller);

}  // namespace
}  // namespace armtest
