#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/IdTable.h"

namespace armengine {

/// Records by positive number.  A record stays in its slot until it is removed, so that pointers to
/// it hold; numbers find slots through an index apart from them.  Adding and removing allocate
/// nothing until more records are held than ever before.
template <typename Record>
class RecordTable {
 public:
  std::size_t size() const { return index_.size(); }
  bool has(int32_t id) const { return index_.find(id) != nullptr; }

  Record* find(int32_t id) {
    const uint32_t* slot = index_.find(id);
    return slot != nullptr ? &at(*slot) : nullptr;
  }
  const Record* find(int32_t id) const {
    const uint32_t* slot = index_.find(id);
    return slot != nullptr ? &at(*slot) : nullptr;
  }

  /// A new record.
  ///   id  positive, and not in the table
  Record& add(int32_t id) {
    if (free_.empty()) grow();
    const uint32_t slot = free_.back();
    free_.pop_back();
    index_[id] = slot;
    return at(slot);
  }

  void remove(int32_t id) {
    const uint32_t* found = index_.find(id);
    if (found == nullptr) return;
    const uint32_t slot = *found;
    at(slot) = Record();
    free_.push_back(slot);
    index_.erase(id);
  }

  /// Calls with each number and record, in no order; the table must not change meanwhile.
  template <typename Body>
  void forEach(Body&& body) {
    index_.forEach([&](int32_t id, uint32_t slot) { body(id, at(slot)); });
  }
  template <typename Body>
  void forEach(Body&& body) const {
    index_.forEach([&](int32_t id, uint32_t slot) { body(id, at(slot)); });
  }

 private:
  static constexpr std::size_t BLOCK = 32;
  using Block = std::array<Record, BLOCK>;

  Record& at(uint32_t slot) { return (*blocks_[slot / BLOCK])[slot % BLOCK]; }
  const Record& at(uint32_t slot) const { return (*blocks_[slot / BLOCK])[slot % BLOCK]; }

  void grow() {
    const auto first = static_cast<uint32_t>(blocks_.size() * BLOCK);
    blocks_.push_back(std::make_unique<Block>());
    // Removing never has to make room.
    free_.reserve(blocks_.capacity() * BLOCK);
    for (auto slot = static_cast<uint32_t>(first + BLOCK); slot-- > first;) free_.push_back(slot);
  }

  IdTable<uint32_t> index_;
  std::vector<std::unique_ptr<Block>> blocks_;
  std::vector<uint32_t> free_;
};

}  // namespace armengine
