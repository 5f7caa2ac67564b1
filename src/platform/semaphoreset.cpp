#include "platform/semaphoreset.h"

#include <cerrno>

int semopThroughSignals(int set, sembuf* operations, std::size_t count) {
  for (;;) {
    const int result = semop(set, operations, count);
    if (result >= 0 || errno != EINTR) return result;
  }
}
