// A program with two copies of the library, each with a C library of its own, that share its
// threads.
//
//   load_copies_client LIBRARY
//
// Makes every call through both copies in several threads and writes a byte: r when every answer
// was right. Goes on when it can read a byte; ends when it cannot, with 0 when nothing is left of
// what it has replaced.

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "fork_calls.h"

namespace {

constexpr unsigned SEGMENTS_OF_A_COPY = 2;

bool bothAnswer(const armtest::ArmCalls& one, const armtest::ArmCalls& other) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  // The loading thread, in which the copies have their error records, sees the dead engine.
  wrong.fetch_add(armtest::wrongAnswersOfEveryCall(one, 7));
  wrong.fetch_add(armtest::wrongAnswersOfEveryCall(other, 8));
  for (int32_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      const int32_t first = 1 + thread * 100000;
      for (int32_t id = first; id < first + 20; ++id) {
        wrong.fetch_add(armtest::wrongAnswersOfEveryCall(one, id));
        wrong.fetch_add(armtest::wrongAnswersOfEveryCall(other, id + 50000));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return wrong.load() == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 99;
  void* first = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  void* second = dlmopen(LM_ID_NEWLM, argv[1], RTLD_NOW | RTLD_LOCAL);
  if (first == nullptr || second == nullptr) return 98;
  const armtest::ArmCalls one = armtest::loadedCalls(first);
  const armtest::ArmCalls other = armtest::loadedCalls(second);
  if (one.start == other.start) return 97;
  char byte = 0;
  do {
    const char outcome = bothAnswer(one, other) ? 'r' : 'w';
    if (write(STDOUT_FILENO, &outcome, 1) != 1) return 96;
  } while (read(STDIN_FILENO, &byte, 1) == 1);
  if (armtest::segmentsAttached() != 2 * SEGMENTS_OF_A_COPY) return 1;
  (void)dlclose(second);
  return armtest::wrongAnswersOfEveryCall(one, 9);
}
