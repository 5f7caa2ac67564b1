// Makes every call and writes what it has seen to standard output; or makes many calls whose
// results belong to their ids, and ends with 1 when one is wrong.
//
//   mixed_client
//   mixed_client FIRST-ID COUNT

#include <unistd.h>

#include <cstdlib>

#include "EveryCall.h"

int main(int argc, char** argv) {
  using namespace armtest;
  if (argc == 3) {
    const int32_t first = std::atoi(argv[1]);
    for (int32_t id = first; id < first + std::atoi(argv[2]); ++id) {
      if (arm_start(id, 0, nullptr, 0) != derivedResult(id)) return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
  }
  const MixedOutcome outcome = makeEveryMixedCall();
  const ssize_t written = write(STDOUT_FILENO, &outcome, sizeof outcome);
  return written == static_cast<ssize_t>(sizeof outcome) ? EXIT_SUCCESS : EXIT_FAILURE;
}
