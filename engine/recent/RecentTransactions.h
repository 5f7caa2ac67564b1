#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "events/EventConsumer.h"
#include "recent/DurationSteps.h"

namespace armengine {

/// Names a class of an application in the page's addresses, which long names do not fit into.
uint64_t keyOf(std::string_view application, std::string_view name);

/// The beginning of a text, of at most so many bytes of UTF-8; what is cut ends in an ellipsis.
std::string shortened(std::string_view text, std::size_t most);

/// The names of a class as the page shows them in lists.
struct ShownClass {
  static constexpr std::size_t LONGEST = 512;  ///< bytes of each name

  uint64_t key = 0;
  std::string application;
  std::string name;
};

/// An instance that has finished.
struct Finished {
  std::shared_ptr<const ShownClass> of;
  TraceContext context;
  uint64_t start = 0;     ///< nanoseconds since the epoch
  uint64_t duration = 0;  ///< nanoseconds
  int32_t status = 0;     ///< completion status
  int32_t process = 0;    ///< 0 when it is not known
  uint32_t thread = 0;
  Outcome outcome = Outcome::unknown;
  bool abandoned = false;

  uint64_t end() const { return start + duration; }
  bool hasFailed() const { return outcome == Outcome::failed || outcome == Outcome::aborted; }
};

/// What the page shows of finished instances: the last ones, the slowest ones of the last five
/// minutes with their traces, and how many of which duration there were in every two seconds of
/// these minutes.  In bounded memory, see the constants.
///
/// Takes events on its worker's thread; any thread asks.
class RecentTransactions : public EventConsumer {
 public:
  static constexpr uint64_t SLOT_SECONDS = 2;
  static constexpr std::size_t SLOTS = 150;
  static constexpr std::size_t MOST_HISTORIES = 128;  ///< classes, 70 KB each
  static constexpr std::size_t MOST_LAST = 16384;     ///< finished instances, 90 bytes each
  static constexpr std::size_t SLICES = 30;           ///< of ten seconds
  static constexpr std::size_t MOST_SLOW = 16;        ///< in each slice
  static constexpr std::size_t MOST_SAVED = 16384;    ///< spans of the traces of slow instances
  static constexpr std::size_t MOST_OF_TRACE = 1024;  ///< spans of one trace, the longest
  static constexpr std::size_t LEAST_OF_TRACE =
      8;  ///< that have room however many others there are

  /// The finished instances of two seconds.
  struct Slot {
    uint64_t number = 0;  ///< seconds since the epoch, divided by SLOT_SECONDS
    DurationCounts counts;
  };
  struct Trace {
    std::vector<Finished> spans;  ///< by start
    bool complete = true;         ///< false: some of the quickest found no room
  };

  using Clock = std::function<uint64_t()>;
  ///   clock  nanoseconds since the epoch
  explicit RecentTransactions(Clock clock);

  void consume(const Event& event, const Payload& payload) override;
  void flush() override;

  /// The slots of a class, or of all together, that hold something, oldest first.  Nothing when no
  /// history of that class is kept.
  std::optional<std::vector<Slot>> history(std::optional<uint64_t> key) const;
  /// What has finished since a time: by class, and under the key nullopt together.
  std::map<std::optional<uint64_t>, DurationCounts> since(uint64_t time) const;
  /// The slowest that have ended since a time.
  std::vector<Finished> slowest(uint64_t since, std::optional<uint64_t> key,
                                std::size_t most) const;
  Trace trace(const TraceId& id) const;
  /// The last ones, in the order in which they have ended.
  std::vector<Finished> last() const;
  uint64_t now() const { return clock_(); }

 private:
  /// One class's slots, by number modulo SLOTS.
  struct History {
    std::vector<Slot> slots = std::vector<Slot>(SLOTS);
    uint64_t last = 0;

    void add(uint64_t number, uint64_t duration, bool failed);
    DurationCounts since(uint64_t number, uint64_t current) const;
  };
  struct Slice {
    uint64_t number = 0;
    std::vector<Finished> slow;  ///< a heap, the quickest first
  };
  struct SavedTrace {
    std::size_t users = 0;        ///< entries of slices
    std::vector<Finished> spans;  ///< a heap, the quickest first
    bool complete = true;
  };

  uint64_t slotNumber() const;
  std::shared_ptr<const ShownClass> classOf(const ClassInfo& info);
  void keepLast(const Finished& finished);
  void keepHistory(const Finished& finished);
  History* historyOf(uint64_t key, uint64_t number);
  void keepSlow(const Finished& finished);
  void clear(Slice* slice);
  void useTrace(const TraceId& id);
  void leaveTrace(const TraceId& id);
  void save(SavedTrace* trace, const Finished& finished);
  void forgetUnused();

  const Clock clock_;
  mutable std::mutex mutex_;
  uint64_t current_ = 0;  ///< number of the newest slot; a clock that is set back changes nothing
  std::vector<Finished> last_;
  std::size_t next_ = 0;  ///< where the next one goes, once last_ is full
  std::unordered_map<uint64_t, std::shared_ptr<const ShownClass>> classes_;
  std::unordered_map<uint64_t, History> histories_;
  History all_;
  std::array<Slice, SLICES> slices_;
  std::map<TraceId, SavedTrace> saved_;
  std::set<TraceId> unread_;  ///< saved traces whose earlier spans are still among the last ones
  std::size_t saved_spans_ = 0;
};

}  // namespace armengine
