#include "Peer.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

#include "Check.h"

// 32-bit programs with 64-bit time call another semctl.
#if defined(__LP64__)
#define REAL_SEMCTL "__real_semctl"
#define WRAP_SEMCTL "__wrap_semctl"
#else
#define REAL_SEMCTL "__real___semctl64"
#define WRAP_SEMCTL "__wrap___semctl64"
#endif

// What --wrap makes of the names: the kernel's functions, and those in front of them.
extern "C" {
int __real_semop(int set, sembuf* operations, std::size_t count);
int __real_semctl(int set, int number, int command, ...) __asm__(REAL_SEMCTL);
void* __real_shmat(int id, const void* address, int flags);
int __real_shmdt(const void* address);

int __wrap_semop(int set, sembuf* operations, std::size_t count);
int __wrap_semctl(int set, int number, int command, ...) __asm__(WRAP_SEMCTL);
void* __wrap_shmat(int id, const void* address, int flags);
int __wrap_shmdt(const void* address);
}

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
thread_local bool peerActs = false;
int failedInARow = 0;
std::map<const void*, Mapping> mappings;

std::size_t wholePages(std::size_t size) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

bool letPeerAct() {
  if (current == nullptr || peerActs) return false;
  const PeerActs acts;
  current->act();
  return true;
}

/// Cuts short what would go on for ever: the library drains the overflow semaphore until nothing is
/// left, whatever else goes wrong.
int failed(int error) {
  if (error != EAGAIN && ++failedInARow > REPEATED_FAILURES) error = EAGAIN;
  if (error == EAGAIN) failedInARow = 0;
  errno = error;
  return -1;
}

}  // namespace

void setPeer(Peer* peer) {
  current = peer;
  failedInARow = 0;
}

PeerActs::PeerActs() : before_(peerActs) {
  peerActs = true;
}
PeerActs::~PeerActs() {
  peerActs = before_;
}

int __wrap_semop(int set, sembuf* operations, std::size_t count) {
  if (!letPeerAct()) return __real_semop(set, operations, count);
  const bool waits = (operations[0].sem_flg & IPC_NOWAIT) == 0;
  std::vector<sembuf> attempt(operations, operations + count);
  for (sembuf& operation : attempt) {
    operation.sem_flg = static_cast<short>(operation.sem_flg | IPC_NOWAIT);
  }
  for (int tries = 0; tries < ENDLESS; ++tries) {
    if (__real_semop(set, attempt.data(), count) == 0) {
      failedInARow = 0;
      return 0;
    }
    if (errno != EAGAIN || !waits) return failed(errno);
    const PeerActs acts;
    current->release(set, operations[0]);
  }
  std::fputs("the library waits, and its peer does not release it\n", stderr);
  std::abort();
}

int __wrap_semctl(int set, int number, int command, ...) {
  void* argument = nullptr;
  if (command == SETVAL || command == SETALL || command == GETALL || command == IPC_STAT) {
    va_list arguments;
    va_start(arguments, command);
    argument = va_arg(arguments, void*);
    va_end(arguments);
  }
  if (letPeerAct() && command == GETNCNT) {
    const int sleepers = current->sleepers();
    if (sleepers >= 0) return sleepers;
  }
  return __real_semctl(set, number, command, argument);
}

void* __wrap_shmat(int id, const void* address, int flags) {
  (void)letPeerAct();
  shmid_ds info = {};
  if (address != nullptr || shmctl(id, IPC_STAT, &info) != 0) {
    return __real_shmat(id, address, flags);
  }
  const std::size_t inner = wholePages(info.shm_segsz);
  const std::size_t length = inner + 2 * GUARD;
  void* reserved =
      mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  CHECK(reserved != MAP_FAILED);
  char* start = static_cast<char*>(reserved) + GUARD;
  void* attached = __real_shmat(id, start, flags | SHM_REMAP);
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

int __wrap_shmdt(const void* address) {
  const auto found = mappings.find(address);
  if (found == mappings.end()) return __real_shmdt(address);
  const Mapping mapping = found->second;
  mappings.erase(found);
  ASAN_UNPOISON_MEMORY_REGION(mapping.end, poisoned(mapping));
  const int result = __real_shmdt(address);
  CHECK(munmap(mapping.start, mapping.length) == 0);
  return result;
}
