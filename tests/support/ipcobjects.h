#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace armtest {

// System V objects, by the paths and projects of their keys and without any of the library's code.
// What a test has put in place of the C library's calls does not see these (Unwatched).

/// Path of an object, such as "ae.kelp_mem", of an engine without a prefix.
std::string controlPath(const std::string& name);
/// Names of the files in the directory of the name files, sorted.
std::vector<std::string> nameFiles();
/// Makes an empty name file where there is none; false when that fails.
bool touch(const std::string& path);

/// Semaphore sets in this namespace.
unsigned semaphoreSets();
/// System V segments and semaphore sets in this namespace.
unsigned ipcObjects();
/// Removes them all.
void removeIpcObjects();

/// Identifier of the segment or set of a name file's project, -1 when there is none.
int segmentAt(const std::string& path, int project = 2);
int setAt(const std::string& path, int project = 1);
/// Makes a name file and the segment, or the set with all semaphores 0, of its project; -1 when
/// there is one.
int makeSegment(const std::string& path, size_t size, int project = 2);
int makeSet(const std::string& path, int semaphores, int project = 1);

bool segmentExists(int segment);
size_t segmentSize(int segment);
/// Permission bits.
unsigned segmentMode(int segment);
void setSegmentMode(int segment, unsigned mode);
/// Attachments in all processes.
unsigned long attachments(int segment);
void removeSegment(int segment);

bool setExists(int set);
/// Number of semaphores.
size_t setSize(int set);
unsigned setMode(int set);
void setSetMode(int set, unsigned mode);
void removeSet(int set);

/// -1 when there is no such semaphore.
int semaphoreValue(int set, int number);
void setSemaphore(int set, int number, int value);
/// The same; false when there is no such semaphore, or it cannot have the value.
bool trySetSemaphore(int set, int number, int value);
/// Threads that sleep until a semaphore can be lowered, or until it is zero.
int semaphoreWaiters(int set, int number);
int zeroWaiters(int set, int number);

/// A segment attached for the life of the object.
class Attached {
 public:
  explicit Attached(int segment);
  explicit Attached(const std::string& path) : Attached(segmentAt(path)) {}
  ~Attached();
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;

  template <typename T>
  T read(size_t offset) const {
    return __atomic_load_n(at<T>(offset), __ATOMIC_SEQ_CST);
  }
  template <typename T>
  void write(size_t offset, T value) {
    __atomic_store_n(at<T>(offset), value, __ATOMIC_SEQ_CST);
  }
  void* address() const { return address_; }

 private:
  template <typename T>
  T* at(size_t offset) const {
    return reinterpret_cast<T*>(static_cast<char*>(address_) + offset);
  }

  void* address_;
};

}  // namespace armtest
