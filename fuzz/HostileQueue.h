#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Input.h"
#include "Peer.h"
#include "rawqueues.h"

/// System V objects of one queue, made by hand from an input: any number of semaphores with any
/// values, and a segment of any size.  Removed with the object.
class HostileQueue {
 public:
  /// Makes a set at a project of a name file.
  void makeSet(const std::string& path, int project, int semaphores,
               const std::vector<uint16_t>& values);
  /// Makes the segment at project 2 of a name file, filled with zeros.
  void makeSegment(const std::string& path, std::size_t size);

  std::size_t sets() const { return sets_.size(); }
  /// A set, by its number in the order of making.
  armtest::SemaphoreSet& set(std::size_t number) { return *sets_[number]; }
  armtest::Segment& memory() { return *memory_; }
  std::size_t size() const { return memory_->size(); }
  /// Changes a semaphore, unless its set is gone.
  void setValue(std::size_t set, int semaphore, int value);
  /// Writes as much of the bytes as the segment holds from an offset on.
  void write(std::size_t offset, const std::string& bytes);

 private:
  std::vector<std::unique_ptr<armtest::SemaphoreSet>> sets_;
  std::unique_ptr<armtest::Segment> memory_;
};

/// A peer that does what the rest of an input says: it writes to the segment, changes semaphores,
/// and removes sets and segment, each time that the library enters the kernel.
class ScriptedPeer final : public Peer {
 public:
  /// heads: the offset below which most of the writes fall.
  ScriptedPeer(HostileQueue& queue, Input& script, std::size_t heads);
  ~ScriptedPeer() override;

  void act() override;
  void release(int set, const sembuf& wait) override;
  int sleepers() override;

  /// Whether semaphore values or sets were changed: the state of the locks then proves nothing.
  bool touchedSemaphores() const { return touched_; }

 private:
  void writeWord();
  void changeSemaphore();

  HostileQueue& queue_;
  Input& script_;
  std::size_t heads_;
  bool touched_ = false;
};

/// A number at the edge of what a field can hold, a likely offset, or any number.
uint32_t edgeValue(Input& input);
