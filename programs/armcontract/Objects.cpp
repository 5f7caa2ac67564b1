#include "armcontract/Objects.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "armcontract/Wire.h"

namespace armcontract {

namespace {

// On purpose not the library's own: what checks engines shares nothing with it.
union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

bool statOf(int id, semid_ds* status) {
  SemArgument argument = {};
  argument.buf = status;
  return semctl(id, 0, IPC_STAT, argument) == 0;
}

timespec until(Clock::time_point end) {
  constexpr long SECOND = 1'000'000'000;
  const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now());
  const auto count = left.count() > 0 ? left.count() : 0;
  return {static_cast<time_t>(count / SECOND), static_cast<long>(count % SECOND)};
}

Waited operate(int set, sembuf* operations, std::size_t count, Duration limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    const timespec time = until(end);
    if (semtimedop(set, operations, count, &time) == 0) return Waited::done;
    if (errno == EAGAIN) return Waited::timed_out;
    if (errno != EINTR) return Waited::gone;
  }
}

}  // namespace

Names Names::of(const std::optional<std::string>& prefix) {
  const std::string suffix = prefix ? "." + prefix->substr(0, wire::LARGEST_PREFIX) : "";
  const std::string requests = wire::REQUEST_FILES;
  return {(requests + wire::OVERFLOW_ENDING + suffix).substr(0, wire::SEMAPHORE_PATH),
          (requests + wire::EMPTY_ENDING + suffix).substr(0, wire::SEMAPHORE_PATH),
          (requests + wire::MEMORY_ENDING + suffix).substr(0, wire::SEGMENT_PATH),
          (wire::REPLY_FILE + suffix).substr(0, wire::SEGMENT_PATH)};
}

// ---- semaphores ---------------------------------------------------------------------------------

std::optional<SemaphoreSet> SemaphoreSet::find(const std::string& path, int project) {
  const key_t key = ftok(path.c_str(), project);
  const int id = key != -1 ? semget(key, 0, 0) : -1;
  if (id == -1) return {};
  return SemaphoreSet(id);
}

int SemaphoreSet::count() const {
  semid_ds status = {};
  return statOf(id_, &status) ? static_cast<int>(status.sem_nsems) : -1;
}

unsigned SemaphoreSet::mode() const {
  semid_ds status = {};
  return statOf(id_, &status) ? status.sem_perm.mode & 0777U : 0;
}

int SemaphoreSet::value(int semaphore) const {
  return semctl(id_, semaphore, GETVAL);
}

int SemaphoreSet::waiters(int semaphore) const {
  return semctl(id_, semaphore, GETNCNT);
}

bool SemaphoreSet::add(int semaphore, int by) const {
  sembuf operation = {static_cast<unsigned short>(semaphore), static_cast<short>(by), IPC_NOWAIT};
  return semop(id_, &operation, 1) == 0;
}

Waited SemaphoreSet::lower(int semaphore, Duration limit) const {
  sembuf operation = {static_cast<unsigned short>(semaphore), -1, 0};
  return operate(id_, &operation, 1, limit);
}

Waited SemaphoreSet::lock(int semaphore, Duration limit) const {
  const auto number = static_cast<unsigned short>(semaphore);
  sembuf operations[] = {{number, 0, 0}, {number, 1, SEM_UNDO}};
  return operate(id_, operations, 2, limit);
}

bool SemaphoreSet::unlock(int semaphore) const {
  sembuf operation = {static_cast<unsigned short>(semaphore), -1, IPC_NOWAIT | SEM_UNDO};
  return semop(id_, &operation, 1) == 0;
}

// ---- segments -----------------------------------------------------------------------------------

std::optional<Segment> Segment::find(const std::string& path) {
  const key_t key = ftok(path.c_str(), wire::SEGMENT_PROJECT);
  const int id = key != -1 ? shmget(key, 1, 0) : -1;
  if (id == -1) return {};
  void* start = shmat(id, nullptr, 0);
  shmid_ds status = {};
  if (reinterpret_cast<intptr_t>(start) == -1) return {};
  if (shmctl(id, IPC_STAT, &status) != 0) {
    (void)shmdt(start);
    return {};
  }
  return Segment(id, static_cast<uint8_t*>(start), status.shm_segsz, status.shm_perm.mode & 0777U);
}

Segment::Segment(Segment&& other) noexcept
    : id_(other.id_),
      start_(std::exchange(other.start_, nullptr)),
      size_(other.size_),
      mode_(other.mode_) {}

Segment::~Segment() {
  if (start_ != nullptr) (void)shmdt(start_);
}

bool segmentExists(int id) {
  shmid_ds status = {};
  return shmctl(id, IPC_STAT, &status) == 0 && (status.shm_perm.mode & SHM_DEST) == 0;
}

void removeSegment(int id) {
  (void)shmctl(id, IPC_RMID, nullptr);
}

void removeSet(const SemaphoreSet& set) {
  (void)semctl(set.id(), 0, IPC_RMID);
}

void removeLeftovers(const Names& names) {
  for (const std::string& path : names.all()) {
    for (const int project : {wire::LOCK_PROJECT, wire::WAKE_PROJECT}) {
      const auto set = SemaphoreSet::find(path, project);
      if (set) removeSet(*set);
    }
    const auto segment = Segment::find(path);
    if (segment) removeSegment(segment->id());
    (void)unlink(path.c_str());
  }
}

void pause() {
  const timespec millisecond = {0, 1'000'000};
  (void)nanosleep(&millisecond, nullptr);
}

}  // namespace armcontract
