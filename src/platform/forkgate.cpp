#include "platform/forkgate.h"

#include <pthread.h>

CForkGate VConverterGate;
CForkGate VLocalTimeGate;

namespace {

constexpr pid_t RENEWED_EARLY = -1;
constexpr int POLLS = 1000;
constexpr useconds_t POLL_MICROSECONDS = 1000;

std::atomic<int> forksUnderWay{0};
std::atomic<unsigned> forks{0};
/// The number of the fork that the calling thread has waited for in vain.
__attribute__((tls_model("initial-exec"))) thread_local unsigned waitedFor = 0;
void (*renewLibrary)() = nullptr;
const char lost = 0;

void beforeFork() {
  VForkingProcess = getpid();
  forks.fetch_add(1);
  forksUnderWay.fetch_add(1);
  for (int polls = 0; polls < POLLS; ++polls) {
    if (!VConverterGate.OccupiedByAnother() && !VLocalTimeGate.OccupiedByAnother()) return;
    (void)usleep(POLL_MICROSECONDS);
  }
}

void inParent() {
  forksUnderWay.fetch_sub(1);
  VForkingProcess = 0;
}

void renew() {
  forksUnderWay.store(0);
  VConverterGate.Renew();
  VLocalTimeGate.Renew();
  renewLibrary();
}

void inChild() {
  if (VForkingProcess != RENEWED_EARLY) renew();
  VForkingProcess = 0;
}

}  // namespace

bool registerForkHandlers(void (*renewInChild)()) {
  renewLibrary = renewInChild;
  return pthread_atfork(beforeFork, inParent, inChild) == 0;
}

void renewIfForked() {
  if (VForkingProcess == RENEWED_EARLY || VForkingProcess == getpid()) return;
  VForkingProcess = RENEWED_EARLY;
  renew();
}

bool CForkGate::OccupiedByAnother() const {
  const void* inside = VInside.load();
  return inside != nullptr && inside != threadMark() && inside != &lost;
}

void CForkGate::Renew() {
  if (OccupiedByAnother()) VInside.store(&lost);
}

bool CForkGate::ForkToWaitFor() {
  return forksUnderWay.load() > 0 && VForkingProcess == 0 && waitedFor != forks.load();
}

void CForkGate::WaitNoLongerForThisFork() {
  waitedFor = forks.load();
}
