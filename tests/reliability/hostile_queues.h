#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rawqueues.h"

// Both queues of an engine, laid by hand, and everything in them that somebody may damage.

namespace armtest {

/// The result word of every reply, also of those in the free list. The bytes of an item are this
/// word again and again.
inline constexpr int32_t MARKED_RESULT = 0x5AFE5AFE;

/// What a test lays. Sets of fewer semaphores than the contract's, or segments of other sizes than
/// whole records make, are laid with the numbers given here.
struct Layout {
  size_t requests = 3;     ///< slots
  size_t replies = 3;      ///< head records and items
  long request_size = -1;  ///< bytes of the request segment, unless negative
  long reply_size = -1;    ///< bytes of the reply segment, unless negative
  int request_lock = 2;    ///< semaphores of each set
  int reply_lock = 2;
  int empty = 3;
  int overflow = 3;
  int waits = -1;  ///< of the wake-up set; two more than head records unless given
};

/// One word of the queues, with the values at which something could go wrong.
struct Target {
  std::string name;
  std::function<void(uint32_t)> set;
  std::vector<uint32_t> values;
  /// Says where an item lies: what stands there is a reply then, whatever it is.
  bool is_link = false;
};

class HostileQueues {
 public:
  explicit HostileQueues(const Layout& layout = {});
  HostileQueues(const HostileQueues&) = delete;
  HostileQueues& operator=(const HostileQueues&) = delete;

  /// Gives the first head record to a requester and links so many replies for it.
  void answer(uint32_t process, uint32_t thread, int replies);
  /// Every word and semaphore. Setting a semaphore of a set that is gone does nothing.
  std::vector<Target> targets();
  /// Links a reply for whoever owns a head record, and raises its semaphore, without the lock.
  void answerHead(size_t head);
  /// Empties the ring and answers everybody who waits, without the lock.
  void serve();
  void removeSets();
  /// Removes one of the five sets.
  void removeSet(size_t which) { sets_[which % sets_.size()]->remove(); }
  /// Removes one of the two segments.
  void removeSegment(size_t which) { (which % 2 == 0 ? requests_ : replies_).remove(); }
  /// Threads of all processes that sleep in any of the sets.
  int sleepers() const;
  /// The bytes between the end of a segment and the end of its last page are as they were laid.
  bool marginsUntouched() const;

 private:
  SemaphoreSet* addSet(const std::string& path, int project, int semaphores);
  void layRequests();
  void layReplies();
  void addLink(std::vector<Target>& all, std::string name, size_t offset,
               std::vector<uint32_t> values);
  void addSemaphores(std::vector<Target>& all, const char* name, SemaphoreSet& set);
  void addWord(std::vector<Target>& all, std::string name, Segment& memory, size_t offset,
               size_t width, std::vector<uint32_t> values);
  size_t itemOffset(size_t item) const { return 12 + 16 * layout_.replies + 532 * item; }
  bool whole() const { return layout_.request_size < 0 && layout_.reply_size < 0; }

  Layout layout_;
  std::vector<std::unique_ptr<SemaphoreSet>> sets_;
  Segment requests_;
  Segment replies_;
};

}  // namespace armtest
