#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Input.h"
#include "Peer.h"

/// System V objects of one queue, made by hand from an input: any number of semaphores with any
/// values, and a segment of any size.  Removed with the object.
class HostileQueue {
 public:
  HostileQueue() = default;
  ~HostileQueue();
  HostileQueue(const HostileQueue&) = delete;
  HostileQueue& operator=(const HostileQueue&) = delete;

  /// Makes a set at a project of a name file; its number in the order of making.
  std::size_t makeSet(const std::string& path, int project, int semaphores,
                      const std::vector<uint16_t>& values);
  /// Makes the segment at project 2 of a name file, filled with zeros.
  void makeSegment(const std::string& path, std::size_t size);

  std::size_t sets() const { return sets_.size(); }
  int set(std::size_t number) const { return sets_[number].id; }
  /// Value of a semaphore, -1 when the set is gone.
  int value(std::size_t set, int semaphore) const;
  void setValue(std::size_t set, int semaphore, int value);
  void raise(std::size_t set, int semaphore);
  void removeSet(std::size_t number);
  void removeSegment();

  uint8_t* bytes() { return bytes_; }
  std::size_t size() const { return size_; }
  /// Writes as much of the bytes as the segment holds from an offset on.
  void write(std::size_t offset, const std::string& bytes);

 private:
  struct Set {
    int id;
    int semaphores;
  };

  std::vector<Set> sets_;
  int memory_ = -1;
  uint8_t* bytes_ = nullptr;
  std::size_t size_ = 0;
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

/// Makes an empty name file.
void makeNameFile(const std::string& path);
