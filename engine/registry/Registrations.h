#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "registry/UserMetrics.h"

namespace armengine {

/// What a program has told about itself; never changed, shared by whoever needs it.
struct ApplicationInfo {
  int32_t id = 0;
  std::string name;  ///< UTF-8
  std::string user;  ///< UTF-8
  std::string raw;   ///< the name's bytes when they were not UTF-8
};

/// What a program has told about a transaction class; never changed, shared by whoever needs it.
struct ClassInfo {
  int32_t id = 0;
  std::shared_ptr<const ApplicationInfo> application;
  std::string name;    ///< UTF-8
  std::string detail;  ///< UTF-8
  std::string raw;     ///< the name's bytes when they were not UTF-8
  MetricDescriptions metrics;
};

}  // namespace armengine
