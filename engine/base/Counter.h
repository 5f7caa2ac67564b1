#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

namespace armengine {

/// A number that one thread changes and any thread reads, without a lock.
class Gauge {
 public:
  void add(uint64_t count = 1) { set(get() + count); }
  void subtract(uint64_t count = 1) { set(get() - count); }
  void set(uint64_t value) { value_.store(value, std::memory_order_relaxed); }
  uint64_t get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

/// The same for one that only grows.
class Counter {
 public:
  void add(uint64_t count = 1) { value_.add(count); }
  uint64_t get() const { return value_.get(); }

 private:
  Gauge value_;
};

/// A gauge with a fraction.
class RealGauge {
 public:
  void add(double amount) { set(get() + amount); }
  void set(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    bits_.set(bits);
  }
  double get() const {
    const uint64_t bits = bits_.get();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

 private:
  // An atomic double is no lock-free object for every compiler on 32-bit x86.
  Gauge bits_;
};

}  // namespace armengine
