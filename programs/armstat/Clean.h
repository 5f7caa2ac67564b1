#pragma once

#include <string>
#include <vector>

#include "armstat/Objects.h"
#include "system/NameFiles.h"

namespace armstat {

/// The removal of what a dead engine has left: its shared objects and its name files.  As long as
/// it exists, no engine can start with the prefix.
class Cleaning {
 public:
  /// Looks for what there is to remove, for the prefix in force.
  Cleaning();

  /// Why nothing may be removed, in one sentence; empty when it may.
  const std::string& refusal() const { return refusal_; }
  bool isEmpty() const { return objects_.empty() && files_.empty(); }
  /// What will be removed, one line each.
  std::string list() const;
  /// Removes exactly that.  One sentence on what could not be removed; empty when all was.
  std::string remove();

 private:
  struct Leftover {
    bool segment;
    int id;
    std::string line;
  };

  std::string lockOut();
  std::string reasonAgainst(const Objects& objects) const;
  void collect(const Objects& objects);

  armengine::PrefixLock lock_;
  std::string refusal_;
  std::vector<Leftover> objects_;
  std::vector<std::string> files_;
};

}  // namespace armstat
