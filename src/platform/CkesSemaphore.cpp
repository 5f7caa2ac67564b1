#include "platform/CkesSemaphore.h"

#include "diag/CkesErrorManager.h"
#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"

namespace {

bool countsAccepted(long initial, long maximum) {
  return maximum >= 1 && initial <= maximum && maximum <= LARGEST_COUNT;
}

}  // namespace

CkesSemaphore::CkesSemaphore(char* name, long initial, long maximum)
    : VInitialized(false), VNamed(true), VMaximum(maximum), VOwner(false), semid(-1) {
  if (!countsAccepted(initial, maximum)) return;
  char path[COUNTING_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(name, nullptr, COUNTING_PATH_LIMIT, path);
  VInitialized = implCreate(path, initial, maximum);
}

CkesSemaphore::CkesSemaphore(char* name)
    : VInitialized(false), VNamed(true), VMaximum(0), VOwner(false), semid(-1) {
  char path[COUNTING_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(name, nullptr, COUNTING_PATH_LIMIT, path);
  VInitialized = implOpen(path);
}

CkesSemaphore::CkesSemaphore(long initial, long maximum)
    : VInitialized(false), VNamed(false), VMaximum(maximum), VOwner(false), semid(-1) {
  if (!countsAccepted(initial, maximum)) return;
  // Deliberate (unnamed): creation begins with the name file, so this always fails.
  VInitialized = implCreate(nullptr, initial, maximum);
}

CkesSemaphore::~CkesSemaphore() {
  (void)implDestroy();
}

long CkesSemaphore::Wait(long timeout) {
  return CkesErrorManager::Record(VInitialized ? implWait(timeout) : ERR_NOT_INITIALIZED,
                                  "CkesSemaphore::Wait()");
}

long CkesSemaphore::TryWait() {
  return CkesErrorManager::Record(VInitialized ? implTryWait() : ERR_NOT_INITIALIZED,
                                  "CkesSemaphore::TryWait()");
}

long CkesSemaphore::Post(long count) {
  return CkesErrorManager::Record(VInitialized ? implPost(count) : ERR_NOT_INITIALIZED,
                                  "CkesSemaphore::Post(long)");
}
