#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace armtop {

using Clock = std::chrono::steady_clock;

/// Finished transactions that took at most so long, by the bound in seconds.
using Buckets = std::map<double, double>;

/// What an engine has counted of one transaction class since it started.
struct ClassFigures {
  double good = 0;
  double aborted = 0;
  double failed = 0;
  double unknown = 0;
  double started = 0;
  double abandoned = 0;
  double in_flight = 0;
  Buckets buckets;

  double finished() const { return good + aborted + failed + unknown; }
};

/// Application and transaction class.
using ClassName = std::pair<std::string, std::string>;

/// All that an engine tells at one time.
struct Figures {
  Clock::time_point time;
  std::map<ClassName, ClassFigures> classes;
  std::string version;
  std::optional<double> requests, request_capacity;
  std::optional<double> requesters, reply_capacity;
  double dropped = 0;  ///< by the engine's outputs
};

/// Reads what an engine serves at /metrics.  Without anything of an engine in it, none.
std::optional<Figures> readFigures(const std::string& text, Clock::time_point time);

/// A percentile, which may lie behind the last bound.
struct Quantile {
  double seconds = 0;
  bool beyond = false;  ///< more than that
};

/// The value that a share of the transactions did not exceed, interpolated in its bucket; none
/// without transactions.
///   share  0 to 1
std::optional<Quantile> quantile(const Buckets& buckets, double share);

/// One line of the table.
struct Row {
  ClassName name;
  double count = 0;              ///< finished
  std::optional<double> rate;    ///< finished per second; none without a time to divide by
  std::optional<double> errors;  ///< share of aborted and failed ones; none without finished ones
  std::optional<Quantile> p50, p95, p99;
  double in_flight = 0;
};

/// The table of what happened between two times; without the first, since the engine's start.  An
/// engine that has started anew in between is taken from its start.
std::vector<Row> makeRows(const Figures* before, const Figures& now);

}  // namespace armtop
