#pragma once

#include <atomic>
#include <cstdint>

namespace armengine {

/// A number that one thread changes and any thread reads, without a lock.
class Figure {
 public:
  void add(uint64_t count = 1) { set(get() + count); }
  void subtract(uint64_t count = 1) { set(get() - count); }
  void set(uint64_t value) { value_.store(value, std::memory_order_relaxed); }
  uint64_t get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

/// The same for a number with a fraction.
class RealFigure {
 public:
  void add(double amount) { set(get() + amount); }
  void set(double value) { value_.store(value, std::memory_order_relaxed); }
  double get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<double> value_{0};
};

}  // namespace armengine
