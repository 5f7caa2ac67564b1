#include "kill_points.h"

#include <cstdio>
#include <cstdlib>

#include "setting.h"

namespace armtest {

unsigned killEvery() {
  return settingOr("ARM_KILL_EVERY", 30);
}

std::vector<Point> everyNth(const std::vector<Point>& points, size_t first) {
  const unsigned every = killEvery();
  std::vector<Point> some;
  for (size_t i = first % every; i < points.size(); i += every) some.push_back(points[i]);
  return some;
}

std::string nameOf(const Point& point) {
  return (point.before ? "before " : "after ") + point.step + " " + std::to_string(point.number);
}

bool runTo(TracedProcess& process, const Point& point) {
  unsigned seen = 0;
  while (const auto stop = process.next()) {
    if (stop->step != point.step || stop->before != point.before) continue;
    if (++seen == point.number) return true;
  }
  return false;
}

std::vector<Point> pointsOf(TracedProcess& process, const std::string& last) {
  std::vector<Point> points;
  std::map<std::string, unsigned> seen[2];
  while (const auto stop = process.next()) {
    points.push_back({stop->step, ++seen[stop->before ? 1 : 0][stop->step], stop->before});
    if (stop->step == last) break;
  }
  return points;
}

void Tally::print(const std::string& what) const {
  std::printf("%s: %u times", what.c_str(), total());
  const char* separator = " (";
  for (const auto& [step, count] : before_) {
    const auto after = after_.find(step);
    std::printf("%s%s %u+%u", separator, step.c_str(), count,
                after != after_.end() ? after->second : 0);
    separator = ", ";
  }
  std::printf(")\n");
}

unsigned Tally::total() const {
  unsigned total = 0;
  for (const auto* counts : {&before_, &after_}) {
    for (const auto& [step, count] : *counts) total += count;
  }
  return total;
}

}  // namespace armtest
