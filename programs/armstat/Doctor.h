#pragma once

#include <string>
#include <vector>

#include "armstat/Picture.h"
#include "armstat/Processes.h"

namespace armstat {

/// How bad a finding is.
enum class Level {
  good,
  note,     ///< good to know
  warning,  ///< may cost measurements, now or later
  problem,  ///< programs are not measured
};

/// What one check has found.
struct Finding {
  Level level = Level::good;
  std::string text;    ///< one sentence
  std::string advice;  ///< what to do; empty when there is nothing to do
};

using Findings = std::vector<Finding>;

struct Diagnosis {
  Findings findings;

  bool healthy() const;
};

/// Makes all checks for the prefix in force.
Diagnosis diagnose();

std::string asText(const Diagnosis& diagnosis);
/// One JSON object without a newline.
std::string asJson(const Diagnosis& diagnosis);

// ---- the checks ---------------------------------------------------------------------------------

/// The directory, the name files of the prefix, and engines of other prefixes.
Findings checkNames(const Picture& picture);
/// Name files whose keys are the same, and objects of other programs under an engine's key.
Findings checkKeys(const Picture& picture);
/// Whether the engine's process lives and serves.
Findings checkEngine(const Picture& picture);
/// What stands in the queues, and who may use them.
Findings checkQueues(const Picture& picture);
/// Programs that have loaded the library but look for its engine elsewhere.
///   unreadable  number of processes that may not be looked at
Findings checkUsers(const std::vector<User>& users, unsigned unreadable, const Picture& picture);
/// Whether the login manager will remove the engine's objects.
///   root  before the paths of its configuration; "" but in tests
Findings checkLoginManager(const Picture& picture, const std::string& root);

/// The kernel's limits for System V objects, and what is used of them.
struct Limits {
  unsigned long sets = 0, sets_used = 0;              ///< semaphore sets
  unsigned long semaphores = 0, semaphores_used = 0;  ///< in all sets
  unsigned long set_size = 0;                         ///< semaphores in one set
  unsigned long segments = 0, segments_used = 0;
  unsigned long segment_size = 0;           ///< bytes
  unsigned long pages = 0, pages_used = 0;  ///< of all segments
  unsigned long page_size = 0;              ///< bytes
};

Limits readLimits();
/// Whether an engine of the usual size would find room.
///   needed  whether one has still to be started
Findings checkLimits(const Limits& limits, bool needed);

/// The value of RemoveIPC that the login manager's configuration below a root gives.
bool removesIpc(const std::string& root);

/// The prefixes of all name files in the directory, none for those without one.
std::vector<std::optional<std::string>> prefixesInDirectory();

}  // namespace armstat
