#include "diag/CkesErrorStack.h"

#include <cstring>

CkesErrorStack::CkesErrorStack() : VFirst(0), VLast(0), VEntries{}, VErrorCode(0), VCursor(0) {
  VEntries[0] = "Error code not set.";
}

void CkesErrorStack::SetErrorCode(long code, const char* text) {
  VErrorCode = code;
  VFirst = VLast;
  VEntries[VLast] = text;
}

long CkesErrorStack::AddFunction(const char* name) {
  const int next = (VLast + 1) % SIZE;
  const bool full = next == VFirst;
  VLast = next;
  VEntries[next] = name;
  if (!full) return 0;
  VFirst = (next + 1) % SIZE;
  return WARN_OLDEST_DROPPED;
}

const char* CkesErrorStack::GetFirstFunction() {
  VCursor = VFirst;
  return VEntries[VFirst];
}

const char* CkesErrorStack::GetNextFunction() {
  if (VCursor == VLast) {
    VCursor = VFirst;
    return nullptr;
  }
  // Deliberate (endless-cursor): the cursor itself is not reduced to the ring, so on a wrapped
  // trail it never meets the newest entry again.  Only its overflow after two thousand million
  // steps is kept from happening.
  VCursor = VCursor < CURSOR_LIMIT ? VCursor + 1 : VCursor + 1 - SIZE;
  return VEntries[VCursor % SIZE];
}

int CkesErrorStack::GetStackSize() const {
  // Deliberate (single-is-51): a trail of one entry counts 51; a full ring counts 50.
  return VLast > VFirst ? VLast - VFirst + 1 : VLast - VFirst + 51;
}

void CkesErrorStack::GetStackDump(char* buffer, int size) {
  const char* entry = GetFirstFunction();
  // Deliberate (no-room-dump): without room there is no first byte to empty.
  if (buffer == nullptr || size < 1) return;
  buffer[0] = '\0';
  std::size_t length = 0;
  for (; entry != nullptr; entry = GetNextFunction()) {
    const std::size_t entryLength = std::strlen(entry);
    const std::size_t newLength = length + entryLength + 1;
    if (newLength >= static_cast<std::size_t>(size)) return;
    std::memcpy(buffer + length, entry, entryLength);
    buffer[newLength - 1] = '\n';
    buffer[newLength] = '\0';
    length = newLength;
  }
}
