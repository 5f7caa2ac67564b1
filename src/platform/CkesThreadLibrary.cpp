#include "platform/CkesThreadLibrary.h"

#include <cstring>

#include "diag/CkesErrorManager.h"
#include "platform/CkesThread.h"

std::atomic<bool> CkesThreadLibrary::VInitialized{false};
unsigned int CkesThreadLibrary::VTNameKey = NO_THREAD_KEY;

namespace {
char mainThreadName[] = "Main Thread";
}

long CkesThreadLibrary::Initialize() {
  if (IsInitialized()) return ERR_ALREADY_INITIALIZED;
  long result = implInitialize();
  if (result != 0) return result;
  // Set before the key is made, so that CreateNewKey does not come back here.
  VInitialized.store(true, std::memory_order_relaxed);
  result = CreateNewKey(&VTNameKey);
  if (result != 0) return result;
  (void)SetThreadName(mainThreadName);
  return CkesErrorManager::Initialize();
}

bool CkesThreadLibrary::IsInitialized() {
  return VInitialized.load(std::memory_order_relaxed);
}

bool CkesThreadLibrary::ready() {
  return IsInitialized() || Initialize() == 0;
}

long CkesThreadLibrary::CreateNewKey(unsigned int* key) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  return implCreateNewKey(key);
}

long CkesThreadLibrary::SetKeyValue(unsigned int key, void* value) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  const long result = implSetKeyValue(key, value);
  return CkesErrorManager::Record(result, "CkesThreadLibrary::SetKeyValue()");
}

long CkesThreadLibrary::GetKeyValue(unsigned int key, void** value) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  const long result = implGetKeyValue(key, value);
  return CkesErrorManager::Record(result, "CkesThreadLibrary::GetKeyValue()");
}

long CkesThreadLibrary::JoinAll(CkesThread** threads, int count) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  for (int i = 0; i < count; ++i) {
    const long result = threads[i]->Join();
    if (result != 0) {
      (void)CkesErrorManager::AddFunction("CkesThreadLibrary::JoinAll()");
      return result;
    }
  }
  return 0;
}

long CkesThreadLibrary::GetCurrentThreadName(char* out) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  const char* name = GetThreadName();
  if (name == nullptr) {
    (void)CkesErrorManager::SetError(ERR_NO_NAME, "CkesThreadLibrary::GetCurrentThreadName()");
    return ERR_NO_NAME;
  }
  std::strcpy(out, name);
  return 0;
}

long CkesThreadLibrary::GetCurrentThreadID(unsigned long* id) {
  if (!ready()) return ERR_NOT_INITIALIZED;
  return implGetCurrentThreadID(id);
}

bool CkesThreadLibrary::SameThreadIDs(unsigned long a, unsigned long b) {
  // Deliberate (same-ids): a yes or no has no room for -102; it still tells whether they are equal.
  (void)ready();
  return a == b;
}

long CkesThreadLibrary::GiveWay() {
  if (!ready()) return ERR_NOT_INITIALIZED;
  return implGiveWay();
}

const char* CkesThreadLibrary::GetThreadName() {
  void* name = nullptr;
  (void)implGetKeyValue(VTNameKey, &name);
  return static_cast<const char*>(name);
}

long CkesThreadLibrary::SetThreadName(char* name) {
  return CkesErrorManager::Record(implSetKeyValue(VTNameKey, name),
                                  "CkesThreadLibrary::SetKeyValue()");
}
