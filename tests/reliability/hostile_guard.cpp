#include "hostile_guard.h"

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "nextcall.h"

namespace {

constexpr size_t BEFORE = 1U << 20;
constexpr size_t BEHIND = sizeof(void*) == 8 ? size_t{5} * 1024 * 1024 * 1024 : 32U << 20;
constexpr size_t PAGE = 4096;
constexpr int DRAIN_FAILURES = 1000;

struct Guarded {
  void* segment = nullptr;
  uint8_t* start = nullptr;
  size_t size = 0;
};

std::mutex mutex;
std::array<Guarded, 64> attached;
std::atomic<uint32_t> cut{0};

Guarded* place(const void* segment) {
  for (Guarded& guarded : attached) {
    if (guarded.segment == segment) return &guarded;
  }
  return nullptr;
}

void* refuse(uint8_t* start, size_t size) {
  const int error = errno;
  munmap(start, size);
  errno = error;
  return reinterpret_cast<void*>(-1);
}

bool drains(const sembuf* operations, size_t count) {
  return count == 1 && operations[0].sem_num == 0 && operations[0].sem_op == -1 &&
         operations[0].sem_flg == IPC_NOWAIT;
}

}  // namespace

namespace armtest {

uint32_t drainsCut() {
  return cut.load();
}

}  // namespace armtest

extern "C" void* shmat(int id, const void* address, int flags) __THROW;
extern "C" void* shmat(int id, const void* address, int flags) __THROW {
  static auto* const REAL = armtest::nextCall<void*(int, const void*, int)>("shmat");
  shmid_ds info = {};
  if (address != nullptr || shmctl(id, IPC_STAT, &info) != 0) return REAL(id, address, flags);
  const size_t mapped = (static_cast<size_t>(info.shm_segsz) + PAGE - 1) / PAGE * PAGE;
  const size_t size = BEFORE + mapped + BEHIND;
  void* reserved =
      mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) return reserved;
  auto* start = static_cast<uint8_t*>(reserved);
  void* segment = REAL(id, start + BEFORE, flags | SHM_REMAP);
  if (segment == reinterpret_cast<void*>(-1)) return refuse(start, size);
  const std::lock_guard<std::mutex> guard(mutex);
  Guarded* free = place(nullptr);
  if (free != nullptr) *free = {segment, start, size};
  return segment;
}

extern "C" int shmdt(const void* address) __THROW;
extern "C" int shmdt(const void* address) __THROW {
  static auto* const REAL = armtest::nextCall<int(const void*)>("shmdt");
  const int result = REAL(address);
  const std::lock_guard<std::mutex> guard(mutex);
  Guarded* found = address != nullptr ? place(address) : nullptr;
  if (found == nullptr) return result;
  munmap(found->start, found->size);
  *found = {};
  return result;
}

extern "C" int semop(int set, sembuf* operations, size_t count) __THROW;
extern "C" int semop(int set, sembuf* operations, size_t count) __THROW {
  static auto* const REAL = armtest::nextCall<int(int, sembuf*, size_t)>("semop");
  static thread_local int failures = 0;
  const int result = REAL(set, operations, count);
  if (!drains(operations, count)) return result;
  failures = result < 0 && errno != EAGAIN ? failures + 1 : 0;
  if (failures < DRAIN_FAILURES) return result;
  failures = 0;
  cut.fetch_add(1);
  errno = EAGAIN;
  return -1;
}

extern "C" int usleep(useconds_t);
extern "C" int usleep(useconds_t) {
  const timespec shortly = {0, 10000};
  return nanosleep(&shortly, nullptr);
}
