#pragma once

#include <string>

namespace armengine {

/// The paths of the interprocess objects that this process's ARM_AGENT_PREFIX selects.
struct NameFiles {
  std::string overflow;  ///< request queue, semaphore of the writers that wait for room
  std::string empty;     ///< request queue, semaphore of the engine
  std::string requests;  ///< request queue, segment and its lock set
  std::string replies;   ///< reply queue, segment, its lock set and its wake-up set
};

/// The path of an object: its base name with the prefix, cut at the limit of its kind.  Reads the
/// environment.
std::string objectPath(const char* base, int limit);

/// The current paths.  Reads the environment.
NameFiles nameFiles();

/// Makes the directory of the name files, and the files, when they are missing.  On failure false,
/// with a sentence in why.
bool makeNameFiles(const NameFiles& files, std::string* why);

/// Deletes the files.
void removeNameFiles(const NameFiles& files);

/// Holds a prefix for one engine: an advisory lock on the request segment's name file, which ends
/// with the process however that ends.
class PrefixLock {
 public:
  PrefixLock() = default;
  ~PrefixLock();
  PrefixLock(const PrefixLock&) = delete;
  PrefixLock& operator=(const PrefixLock&) = delete;

  /// False when another process holds the lock, or the file cannot be opened.
  bool acquire(const std::string& path);

 private:
  int file_ = -1;
};

/// The process of an engine that serves the path's request segment, 0 when none lives.
int liveEngine(const std::string& path);

/// The semaphore set at a path, -1 when there is none.
int openSemaphoreSet(const std::string& path, int project);

/// Removes the segment and the semaphore sets that a dead engine has left behind at a path.
void removeLeftovers(const std::string& path);

}  // namespace armengine
