#pragma once

#include <map>
#include <string>
#include <vector>

namespace armtop {

/// One line of Prometheus' text format.
struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  double value = 0;
};

/// Reads Prometheus' text format.  Comments are left out, and so is every line that breaks the
/// format; the rest counts.
///   broken  is set to the number of such lines
std::vector<Sample> parseMetrics(const std::string& text, unsigned* broken);

}  // namespace armtop
