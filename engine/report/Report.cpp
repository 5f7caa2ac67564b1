#include "report/Report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

#include "base/Time.h"
#include "report/FamilyTree.h"
#include "text/Columns.h"

namespace armengine {

namespace {

constexpr std::size_t NAME_LIMIT = 40;
constexpr std::size_t TEXT_COLUMNS = 2;
/// How much of a tree is drawn.
constexpr std::size_t MOST_CHILDREN = 8;
constexpr std::size_t MOST_DEPTH = 4;

using Cells = std::vector<std::string>;

std::string withDecimals(double value, const char* unit) {
  char text[32];
  const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  (void)std::snprintf(text, sizeof text, "%.*f %s", decimals, value, unit);
  return text;
}

std::string inMinutes(uint64_t seconds) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%llu min %02llu s",
                      static_cast<unsigned long long>(seconds / 60),
                      static_cast<unsigned long long>(seconds % 60));
  return text;
}

Cells rowOf(const ClassStatistics& of, bool with_unknown) {
  Cells row = {armtext::printable(of.application, NAME_LIMIT),
               armtext::printable(of.name, NAME_LIMIT),
               std::to_string(of.count()),
               std::to_string(of.good.get()),
               std::to_string(of.failed.get()),
               std::to_string(of.aborted.get())};
  if (with_unknown) row.push_back(std::to_string(of.unknown.get()));
  for (const unsigned percent : {50U, 95U, 99U}) {
    row.push_back(of.count() > 0 ? readableTime(of.times.percentile(percent)) : "-");
  }
  row.push_back(of.count() > 0 ? readableTime(of.times.maximum()) : "-");
  return row;
}

std::string makeTable(const std::vector<std::shared_ptr<ClassStatistics>>& all) {
  const bool with_unknown =
      std::any_of(all.begin(), all.end(), [](const auto& of) { return of->unknown.get() > 0; });
  Cells heading = {"application", "transaction class", "count", "good", "failed", "aborted"};
  if (with_unknown) heading.emplace_back("unknown");
  heading.insert(heading.end(), {"p50", "p95", "p99", "max"});
  // Names to the left of their columns, numbers to the right.
  armtext::Table table(std::string(TEXT_COLUMNS, 'l') +
                       std::string(heading.size() - TEXT_COLUMNS, 'r'));
  table.add(heading);
  for (const auto& of : all) table.add(rowOf(*of, with_unknown));
  return table.text();
}

std::string lineOf(const TreeNode& node) {
  const std::string name = armtext::printable(node.name, NAME_LIMIT);
  if (!node.outcome) return name + "  open";
  return name + "  " + readableTime(node.duration) + "  " + nameOf(*node.outcome);
}

void drawChildren(const TreeNode& parent, std::size_t depth, const std::string& indent,
                  std::string* drawing) {
  const std::size_t most = depth + 1 < MOST_DEPTH ? MOST_CHILDREN : 0;
  const std::size_t drawn = std::min(parent.children.size(), most);
  const std::size_t left_out = parent.children.size() - drawn;
  for (std::size_t i = 0; i < drawn; ++i) {
    const TreeNode& child = *parent.children[i];
    const bool last = left_out == 0 && i + 1 == drawn;
    *drawing += indent + (last ? "`- " : "|- ") + lineOf(child) + '\n';
    drawChildren(child, depth + 1, indent + (last ? "   " : "|  "), drawing);
  }
  if (left_out > 0) *drawing += indent + "`- and " + std::to_string(left_out) + " more\n";
}

std::string drawLargest(const Registry& registry, const RecentTransactions& recent) {
  const FamilyTree tree(recent.last(), registry.describeOpen());
  const TreeNode* largest = tree.largest();
  if (largest == nullptr) return "";
  std::string drawing = "\nthe parent with most children, and its first ones:\n" +
                        armtext::printable(largest->application, NAME_LIMIT) + ": " +
                        lineOf(*largest) + '\n';
  drawChildren(*largest, 0, "", &drawing);
  return drawing;
}

}  // namespace

std::string readableTime(uint64_t nanoseconds) {
  constexpr uint64_t MINUTE = 60 * SECOND;
  struct Unit {
    const char* name;
    double nanoseconds;
  };
  constexpr std::array<Unit, 2> LARGE_UNITS = {{{"s", 1e9}, {"ms", 1e6}}};
  if (nanoseconds >= MINUTE) return inMinutes(nanoseconds / SECOND);
  for (const Unit& unit : LARGE_UNITS) {
    const double value = static_cast<double>(nanoseconds) / unit.nanoseconds;
    if (value >= 0.9995) return withDecimals(value, unit.name);
  }
  return std::to_string((nanoseconds + 500) / 1000) + " us";
}

std::string makeReport(const Registry& registry, const RecentTransactions& recent) {
  const auto all = registry.statistics();
  if (all.empty()) return "no transaction class was registered\n";
  std::string report = makeTable(all);
  if (registry.openInstances() > 0) {
    report += "never stopped: " + std::to_string(registry.openInstances()) + "\n";
  }
  const uint64_t abandoned =
      std::accumulate(all.begin(), all.end(), uint64_t{0},
                      [](uint64_t sum, const auto& of) { return sum + of->abandoned.get(); });
  if (abandoned > 0) report += "abandoned: " + std::to_string(abandoned) + "\n";
  return report + drawLargest(registry, recent);
}

}  // namespace armengine
