#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace armengine {

/// Values by positive number, in one block of memory: adding and removing allocate nothing until
/// more numbers are held than ever before.  Pointers to values hold until the next change.
template <typename Value>
class IdTable {
 public:
  IdTable() : cells_(SMALLEST) {}

  std::size_t size() const { return size_; }

  Value* find(int32_t id) {
    Cell& cell = cells_[place(id)];
    return cell.id == id && id > 0 ? &cell.value : nullptr;
  }
  const Value* find(int32_t id) const {
    const Cell& cell = cells_[place(id)];
    return cell.id == id && id > 0 ? &cell.value : nullptr;
  }

  /// The value of a number, made anew when there is none.
  ///   id  positive
  Value& operator[](int32_t id) {
    if ((size_ + 1) * 2 > cells_.size()) grow();
    Cell& cell = cells_[place(id)];
    if (cell.id == 0) {
      cell.id = id;
      ++size_;
    }
    return cell.value;
  }

  void erase(int32_t id) {
    std::size_t hole = place(id);
    if (id <= 0 || cells_[hole].id != id) return;
    --size_;
    // What stands behind the hole and belongs before it moves up, so that no search ends too early.
    for (std::size_t at = next(hole); cells_[at].id != 0; at = next(at)) {
      const std::size_t home = homeOf(cells_[at].id);
      if (distance(home, at) < distance(hole, at)) continue;
      cells_[hole] = std::move(cells_[at]);
      hole = at;
    }
    cells_[hole] = Cell();
  }

  /// Calls with each number and value, in no order; the table must not change meanwhile.
  template <typename Body>
  void forEach(Body&& body) const {
    for (const Cell& cell : cells_) {
      if (cell.id != 0) body(cell.id, cell.value);
    }
  }

 private:
  static constexpr std::size_t SMALLEST = 64;
  struct Cell {
    int32_t id = 0;
    Value value = {};
  };

  std::size_t homeOf(int32_t id) const {
    // Numbers are given one after the other; spreading them keeps removals from moving long runs.
    return (static_cast<uint32_t>(id) * 2654435769U >> 7) & (cells_.size() - 1);
  }
  std::size_t next(std::size_t at) const { return (at + 1) & (cells_.size() - 1); }
  std::size_t distance(std::size_t from, std::size_t to) const {
    return (to - from) & (cells_.size() - 1);
  }
  /// Where a number stands, or the free cell where it would.
  std::size_t place(int32_t id) const {
    std::size_t at = homeOf(id);
    while (cells_[at].id != 0 && cells_[at].id != id) at = next(at);
    return at;
  }
  void grow() {
    std::vector<Cell> old(cells_.size() * 2);
    old.swap(cells_);
    for (Cell& cell : old) {
      if (cell.id != 0) cells_[place(cell.id)] = std::move(cell);
    }
  }

  std::vector<Cell> cells_;
  std::size_t size_ = 0;
};

}  // namespace armengine
