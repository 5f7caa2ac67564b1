#include "diag/CkesErrorManager.h"

#include <atomic>
#include <new>

#include "diag/CkesErrorStack.h"
#include "platform/CkesThreadLibrary.h"

namespace {

unsigned int stackKey = NO_THREAD_KEY;
std::atomic<bool> initialized{false};

// What this library has stored under its key.  A second C library in the process (dlmopen) numbers
// its keys anew but keeps their values in the same place: what lies there may be another's.
__attribute__((tls_model("initial-exec"))) thread_local const void* ownStack = nullptr;

}  // namespace

long CkesErrorManager::Initialize() {
  if (initialized.load(std::memory_order_relaxed)) return 0;
  long result = CkesThreadLibrary::CreateNewKey(&stackKey);
  if (result != 0) return result;
  result = NewThread();
  if (result != 0) return result;
  initialized.store(true, std::memory_order_relaxed);
  return 0;
}

bool CkesErrorManager::ready() {
  return initialized.load(std::memory_order_relaxed) || CkesThreadLibrary::Initialize() == 0;
}

long CkesErrorManager::NewThread() {
  void* value = nullptr;
  const long result = CkesThreadLibrary::GetKeyValue(stackKey, &value);
  if (result != 0) return result;
  if (value != nullptr) return ERR_HAS_STACK;
  auto* stack = new (std::nothrow) CkesErrorStack;
  if (stack == nullptr) return ERR_NO_MEMORY;
  if (CkesThreadLibrary::SetKeyValue(stackKey, stack) != 0) return ERR_NOT_STORED;
  ownStack = stack;
  return 0;
}

long CkesErrorManager::RegisterThread() {
  return ready() ? NewThread() : ERR_NOT_INITIALIZED;
}

long CkesErrorManager::UnregisterThread() {
  CkesErrorStack* stack = nullptr;
  const long result = GetStack(&stack);
  if (result != 0) return result;
  // Cleared before the stack goes: a failing key call records its error in it, and leaves the key
  // pointing at it, so that it must stay then.
  if (CkesThreadLibrary::SetKeyValue(stackKey, nullptr) != 0) return ERR_NOT_CLEARED;
  ownStack = nullptr;
  delete stack;
  return 0;
}

long CkesErrorManager::readyStack(CkesErrorStack** stack) {
  return ready() ? GetStack(stack) : ERR_NOT_INITIALIZED;
}

long CkesErrorManager::SetError(long code, const char* text) {
  CkesErrorStack* stack = nullptr;
  const long result = readyStack(&stack);
  if (result == 0) stack->SetErrorCode(code, text);
  return result;
}

long CkesErrorManager::RecordFailure(long code, const char* text) {
  (void)SetError(code, text);
  return code;
}

long CkesErrorManager::AddFunction(const char* name) {
  CkesErrorStack* stack = nullptr;
  const long result = readyStack(&stack);
  return result == 0 ? stack->AddFunction(name) : result;
}

long CkesErrorManager::GetError(long* code) {
  CkesErrorStack* stack = nullptr;
  const long result = readyStack(&stack);
  if (result == 0) *code = stack->GetErrorCode();
  return result;
}

long CkesErrorManager::GetStackDump(char* buffer, int size) {
  CkesErrorStack* stack = nullptr;
  const long result = readyStack(&stack);
  if (result == 0) stack->GetStackDump(buffer, size);
  return result;
}

long CkesErrorManager::GetStack(CkesErrorStack** stack) {
  void* value = nullptr;
  const long result = CkesThreadLibrary::GetKeyValue(stackKey, &value);
  if (result != 0) return result;
  if (value == nullptr || value != ownStack) return ERR_NO_STACK;
  *stack = static_cast<CkesErrorStack*>(value);
  return 0;
}

long CkesErrorManager::GetStack(CkesErrorStack& copy) {
  CkesErrorStack* stack = nullptr;
  const long result = readyStack(&stack);
  if (result == 0) copy = *stack;
  return result;
}
