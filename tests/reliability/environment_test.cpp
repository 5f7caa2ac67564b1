// Hosts whose other threads read the environment all the time, while the library puts its own
// variable there: nothing is taken from under them.

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "armext.h"
#include "counted.h"
#include "gtest/gtest.h"
#include "process.h"

namespace armtest {
namespace {

constexpr unsigned HOSTS = 200;
constexpr int READERS = 3;
constexpr int VARIABLES = 200;

std::string nameOf(int number) {
  return "HOST_" + std::to_string(number);
}

/// Threads that look up the last variables of a long list, with the C library and with its
/// localtime.
class Readers {
 public:
  Readers() {
    for (int i = 0; i < READERS; ++i) {
      threads_.emplace_back([this] {
        do read();
        while (!stop_.load());
        read();
      });
    }
    while (rounds_.load() < READERS) std::this_thread::yield();
  }
  /// Reads on; the wrong values that were found.
  int wrongAtEnd() {
    const int before = rounds_.load();
    while (rounds_.load() < before + 20) std::this_thread::yield();
    stop_.store(true);
    for (std::thread& thread : threads_) thread.join();
    return wrong_.load();
  }

 private:
  void read() {
    for (int number = VARIABLES - 5; number < VARIABLES; ++number) {
      const char* value = getenv(nameOf(number).c_str());
      if (value == nullptr || nameOf(number) != value) wrong_.fetch_add(1);
    }
    const time_t now = 86400;
    tm local = {};
    tzset();
    if (localtime_r(&now, &local) == nullptr || local.tm_hour != 3) wrong_.fetch_add(1);
    rounds_.fetch_add(1);
  }

  std::vector<std::thread> threads_;
  std::atomic<bool> stop_{false};
  std::atomic<int> rounds_{0};
  std::atomic<int> wrong_{0};
};

/// Fills the list to the end of its memory, and what memory is free behind it: a list that the C
/// library makes longer must move.
void leaveNoRoomForAnotherVariable() {
  size_t entries = VARIABLES;
  while (environ[entries] != nullptr) ++entries;
  const size_t more = malloc_usable_size(environ) / sizeof(char*) - 1 - entries;
  for (size_t i = 0; i < more; ++i) setenv(("MORE_" + std::to_string(i)).c_str(), "", 1);
  for (int i = 0; i < 20000; ++i) {
    if (malloc(1) == nullptr) abort();
  }
}

/// Writes over whatever memory is free.
void useFreeMemory() {
  std::vector<void*> blocks;
  for (size_t size = 16; size <= 8192; size += 16) {
    blocks.push_back(malloc(size));
    std::memset(blocks.back(), 'x', size);
  }
  for (void* block : blocks) free(block);
}

/// A host's life; 0 when nobody has read anything wrong.
int live() {
  unsetenv("ICU_DATA");
  for (int number = 0; number < VARIABLES; ++number) {
    setenv(nameOf(number).c_str(), nameOf(number).c_str(), 1);
  }
  setenv("TZ", "HOST-3", 1);
  leaveNoRoomForAnotherVariable();
  Readers readers;
  if (SetExpectedCodeset("UTF-8") != 0) return 2;
  useFreeMemory();
  if (readers.wrongAtEnd() != 0) return 1;
  const char* directory = getenv("ICU_DATA");
  return directory != nullptr && std::strcmp(directory, "/var/orv/kestra/common/QDN/icudata") == 0
             ? 0
             : 3;
}

TEST(EnvironmentReaders, AreNotDisturbedByTheFirstRegistration) {
  unsigned disturbed = 0;
  for (unsigned host = 0; host < HOSTS; ++host) disturbed += exitCodeOf(forkChild(live)) != 0;
  EXPECT_EQ(0U, disturbed) << "of " << HOSTS << " hosts";
  counted("threads that read the environment during the first registration, hosts", HOSTS);
}

}  // namespace
}  // namespace armtest
