#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace armstat {

/// What identifies a System V object, and how far looking it up has come.
struct ObjectBase {
  std::string what;       ///< its role, for people
  std::string path;       ///< its name file
  int project = 0;        ///< the second argument of ftok
  bool has_name = false;  ///< the name file exists
  key_t key = -1;         ///< -1 without a name file
  int id = -1;            ///< -1 when there is no such object
  int error = 0;          ///< errno of the first step that failed; 0 when all is known
  uid_t owner = 0;
  unsigned mode = 0;  ///< permission bits

  bool exists() const { return id != -1; }
};

/// A segment, as the kernel describes it.
struct Segment : ObjectBase {
  std::size_t size = 0;
  unsigned long attached = 0;  ///< times that it is attached, armstat not counted
  pid_t creator = 0;           ///< process that made it; 0 when it is in another process namespace
  pid_t last = 0;              ///< process that attached or detached last
};

/// A semaphore set.
struct SemaphoreSet : ObjectBase {
  unsigned expected = 0;               ///< number of semaphores of a set that an engine has made
  unsigned count = 0;                  ///< the number that it has
  std::vector<unsigned short> values;  ///< empty without the right to read them

  std::optional<unsigned> value(unsigned number) const;
  /// Threads that wait for a semaphore to rise.
  std::optional<unsigned> waiters(unsigned number) const;
  /// The process of the last operation on a semaphore; 0 when it is not known.
  pid_t lastProcess(unsigned number) const;
  /// Whether the set can be an engine's.
  bool fits() const { return count >= expected; }
};

/// The shared objects of one engine.
struct Objects {
  Segment requests;
  SemaphoreSet request_lock;
  SemaphoreSet empty;     ///< the engine waits on it for requests
  SemaphoreSet overflow;  ///< writers wait on it for room
  Segment replies;
  SemaphoreSet reply_lock;
  SemaphoreSet wake;  ///< requesters wait on it for replies

  std::vector<const ObjectBase*> all() const;
  std::vector<const SemaphoreSet*> sets() const;
  std::vector<const Segment*> segments() const { return {&requests, &replies}; }
  bool any() const;
};

/// Makes a prefix that of this process: everything below goes by the environment.
void choosePrefix(const std::string& prefix);
/// The prefix in force; none without one, and "" is one too.
std::optional<std::string> prefixInForce();
/// The prefix in force for a sentence: "without a prefix", "with the prefix 'blue'".
std::string prefixInWords();

/// Looks up the objects of the prefix in force.  Makes and changes nothing.
Objects findObjects();

/// The four name files of the prefix in force.
std::vector<std::string> namePaths();

}  // namespace armstat
