#include "Peer.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

#include "Check.h"
#include "calls.h"

namespace calls = armtest::calls;

namespace {

/// One reply or ring of the largest capacity is smaller than what lies before and behind a segment.
constexpr std::size_t GUARD = sizeof(void*) == 8 ? std::size_t{1} << 30 : std::size_t{1} << 24;
/// More releases than any input asks for.
constexpr int ENDLESS = 10000;
/// Failures after which an endless repetition that is promised to engines is cut short.
constexpr int REPEATED_FAILURES = 50;

struct Mapping {
  char* start;
  std::size_t length;
  char* end;  ///< of the segment; the rest of its last page is poisoned
};

std::size_t poisoned(const Mapping& mapping) {
  return static_cast<std::size_t>(mapping.start + mapping.length - GUARD - mapping.end);
}

Peer* current = nullptr;
thread_local bool peer_acts = false;
int failed_in_a_row = 0;
std::map<const void*, Mapping> mappings;

std::size_t wholePages(std::size_t size) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

bool letPeerAct() {
  if (current == nullptr || peer_acts) return false;
  const PeerActs acts;
  current->act();
  return true;
}

/// Cuts short what would go on for ever: the library drains the overflow semaphore until nothing is
/// left, whatever else goes wrong.
int failed(int error) {
  if (error != EAGAIN && ++failed_in_a_row > REPEATED_FAILURES) error = EAGAIN;
  if (error == EAGAIN) failed_in_a_row = 0;
  errno = error;
  return -1;
}

}  // namespace

void setPeer(Peer* peer) {
  current = peer;
  failed_in_a_row = 0;
}

PeerActs::PeerActs() : before_(peer_acts) {
  peer_acts = true;
}
PeerActs::~PeerActs() {
  peer_acts = before_;
}

namespace {

int operate(int set, sembuf* operations, std::size_t count) {
  if (!letPeerAct()) return calls::semop.real(set, operations, count);
  const bool waits = (operations[0].sem_flg & IPC_NOWAIT) == 0;
  std::vector<sembuf> attempt(operations, operations + count);
  for (sembuf& operation : attempt) {
    operation.sem_flg = static_cast<short>(operation.sem_flg | IPC_NOWAIT);
  }
  for (int tries = 0; tries < ENDLESS; ++tries) {
    if (calls::semop.real(set, attempt.data(), count) == 0) {
      failed_in_a_row = 0;
      return 0;
    }
    if (errno != EAGAIN || !waits) return failed(errno);
    const PeerActs acts;
    current->release(set, operations[0]);
  }
  std::fputs("the library waits, and its peer does not release it\n", stderr);
  std::abort();
}

int control(int set, int number, int command, TSemArgument argument) {
  if (letPeerAct() && command == GETNCNT) {
    const int sleepers = current->sleepers();
    if (sleepers >= 0) return sleepers;
  }
  return calls::semctl.real(set, number, command, argument);
}

void* attach(int id, const void* address, int flags) {
  (void)letPeerAct();
  shmid_ds info = {};
  if (address != nullptr || shmctl(id, IPC_STAT, &info) != 0) {
    return calls::shmat.real(id, address, flags);
  }
  const std::size_t inner = wholePages(info.shm_segsz);
  const std::size_t length = inner + 2 * GUARD;
  void* reserved =
      mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  CHECK(reserved != MAP_FAILED);
  char* start = static_cast<char*>(reserved) + GUARD;
  void* attached = calls::shmat.real(id, start, flags | SHM_REMAP);
  if (attached != start) {
    const int error = errno;
    CHECK(munmap(reserved, length) == 0);
    errno = error;
    return attached;
  }
  const Mapping mapping = {start - GUARD, length, start + info.shm_segsz};
  ASAN_POISON_MEMORY_REGION(mapping.end, poisoned(mapping));
  mappings[start] = mapping;
  return start;
}

int detach(const void* address) {
  const auto found = mappings.find(address);
  if (found == mappings.end()) return calls::shmdt.real(address);
  const Mapping mapping = found->second;
  mappings.erase(found);
  ASAN_UNPOISON_MEMORY_REGION(mapping.end, poisoned(mapping));
  const int result = calls::shmdt.real(address);
  CHECK(munmap(mapping.start, mapping.length) == 0);
  return result;
}

[[maybe_unused]] const bool INTERCEPTED = [] {
  calls::semop.replace(operate);
  calls::semctl.replace(control);
  calls::shmat.replace(attach);
  calls::shmdt.replace(detach);
  return true;
}();

}  // namespace
