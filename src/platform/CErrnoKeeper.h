#pragma once

#include <cerrno>

/// Gives errno back as it was found, when it leaves its scope.  Every exported call holds one.
class CErrnoKeeper {
 public:
  CErrnoKeeper() : VSaved(errno) {}
  ~CErrnoKeeper() { errno = VSaved; }
  CErrnoKeeper(const CErrnoKeeper&) = delete;
  CErrnoKeeper& operator=(const CErrnoKeeper&) = delete;

 private:
  int VSaved;
};
