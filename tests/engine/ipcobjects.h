#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace armtest {

// The objects of an engine, looked at from outside: by their keys, without any of its code.

/// Path of an object, such as "ae.kelp_mem", of an engine without a prefix.
std::string controlPath(const std::string& name);

/// Names of the files in the directory of the name files, sorted.
std::vector<std::string> nameFiles();

/// System V segments and semaphore sets in this namespace.
unsigned ipcObjects();

/// Identifier of a segment (project 2) at a path, -1 when there is none.
int segmentAt(const std::string& path);
/// Size of a segment in bytes.
size_t segmentSize(int segment);
/// Permission bits of a segment.
unsigned segmentMode(int segment);

/// Identifier of a semaphore set at a path, -1 when there is none.
int setAt(const std::string& path, int project);
/// Number of semaphores in a set.
size_t setSize(int set);
unsigned setMode(int set);
int semaphoreValue(int set, int number);
void setSemaphore(int set, int number, int value);
/// Threads that wait for a semaphore to rise.
int semaphoreWaiters(int set, int number);

/// A segment attached for the life of the object.
class Attached {
 public:
  explicit Attached(const std::string& path);
  ~Attached();
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;

  template <typename T>
  T read(size_t offset) const {
    return __atomic_load_n(at<T>(offset), __ATOMIC_RELAXED);
  }
  template <typename T>
  void write(size_t offset, T value) {
    __atomic_store_n(at<T>(offset), value, __ATOMIC_RELAXED);
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
