#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace armcontract {

using Clock = std::chrono::steady_clock;
using Duration = std::chrono::milliseconds;
inline constexpr Duration FOR_EVER{3'600'000};

/// The name files of one prefix.
struct Names {
  std::string overflow;
  std::string empty;
  std::string requests;
  std::string replies;

  /// The files of a value of ARM_AGENT_PREFIX; without one those without a suffix.
  static Names of(const std::optional<std::string>& prefix);
  std::vector<std::string> all() const { return {overflow, empty, requests, replies}; }
};

/// How a wait on a semaphore ended.
enum class Waited { done, timed_out, gone };

/// A System V semaphore set of somebody else.  Nothing throws; a set that is gone has values of -1.
class SemaphoreSet {
 public:
  static std::optional<SemaphoreSet> find(const std::string& path, int project);

  int id() const { return id_; }
  bool exists() const { return count() > 0; }
  /// Its number of semaphores.
  int count() const;
  /// Its permission bits.
  unsigned mode() const;
  int value(int semaphore) const;
  /// Threads that wait for the semaphore to rise.
  int waiters(int semaphore) const;
  bool add(int semaphore, int by) const;
  /// Lowers a semaphore by one, waiting until it can be.
  Waited lower(int semaphore, Duration limit) const;
  /// The lock that semaphore number is: raises it from zero, with undo.
  Waited lock(int semaphore, Duration limit) const;
  bool unlock(int semaphore) const;

 private:
  explicit SemaphoreSet(int id) : id_(id) {}
  int id_;
};

/// A System V segment of somebody else, attached while the object lives.
class Segment {
 public:
  static std::optional<Segment> find(const std::string& path);
  Segment(Segment&& other) noexcept;
  Segment& operator=(Segment&&) = delete;
  ~Segment();

  int id() const { return id_; }
  std::size_t size() const { return size_; }
  unsigned mode() const { return mode_; }

  uint8_t u8(std::size_t offset) const { return load<uint8_t>(offset); }
  uint16_t u16(std::size_t offset) const { return load<uint16_t>(offset); }
  uint32_t u32(std::size_t offset) const { return load<uint32_t>(offset); }
  void put8(std::size_t offset, uint8_t value) { store(offset, value); }
  void put16(std::size_t offset, uint16_t value) { store(offset, value); }
  void put32(std::size_t offset, uint32_t value) { store(offset, value); }
  uint8_t* at(std::size_t offset) { return start_ + offset; }

 private:
  Segment(int id, uint8_t* start, std::size_t size, unsigned mode)
      : id_(id), start_(start), size_(size), mode_(mode) {}
  template <typename T>
  T load(std::size_t offset) const {
    return __atomic_load_n(reinterpret_cast<const T*>(start_ + offset), __ATOMIC_SEQ_CST);
  }
  template <typename T>
  void store(std::size_t offset, T value) {
    __atomic_store_n(reinterpret_cast<T*>(start_ + offset), value, __ATOMIC_SEQ_CST);
  }

  int id_;
  uint8_t* start_;
  std::size_t size_;
  unsigned mode_;
};

/// Whether a segment of this identifier is there, and not only until the last process has let go.
bool segmentExists(int id);

// What an engine that this process has started has left behind.
void removeSegment(int id);
void removeSet(const SemaphoreSet& set);
/// All that the names lead to, and the name files.
void removeLeftovers(const Names& names);

/// Polls a condition until it holds; false when it does not within the limit.
template <typename Condition>
bool comesTrue(Duration limit, Condition&& condition);

void pause();

template <typename Condition>
bool comesTrue(Duration limit, Condition&& condition) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() >= end) return false;
    pause();
  }
  return true;
}

}  // namespace armcontract
