#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kill_tracer.h"

namespace armtest {

/// A moment in the life of a process: before or after the n-th call of a step.
struct Point {
  std::string step;
  unsigned number;
  bool before;
};

/// Of how many moments in a row one is tried: ARM_KILL_EVERY of the environment, else 30.
unsigned killEvery();
/// One in so many of the moments, from one of the first on.
std::vector<Point> everyNth(const std::vector<Point>& points, size_t first = 0);

/// Names the moment, such as "before requests lock 2".
std::string nameOf(const Point& point);

/// Goes on to a moment; false when the process ended without it.
bool runTo(TracedProcess& process, const Point& point);

/// All moments of a process up to its end, or up to the first call of a step, that moment included.
std::vector<Point> pointsOf(TracedProcess& process, const std::string& last = "");

/// How often processes were killed, by step.
class Tally {
 public:
  void count(const Point& point) { ++(point.before ? before_ : after_)[point.step]; }
  /// Prints one line.
  void print(const std::string& what) const;
  unsigned total() const;
  /// Whether a process was killed before or after such a step.
  bool touches(const std::string& step) const {
    return before_.count(step) != 0 || after_.count(step) != 0;
  }
  /// Whether a process was killed before and after such a step.
  bool has(const std::string& step) const {
    return before_.count(step) != 0 && after_.count(step) != 0;
  }

 private:
  std::map<std::string, unsigned> before_;
  std::map<std::string, unsigned> after_;
};

}  // namespace armtest
