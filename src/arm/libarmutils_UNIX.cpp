#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "arm/libarmutils.h"

namespace {

/// The login name of a user in a buffer of the given size; the reentrant look-up leaves the host's
/// own getpwuid result alone.  Returns 0, or the look-up's error: ERANGE when the entry needs more
/// room.
int lookUp(uid_t user, char* entry, std::size_t size, const char** name) {
  passwd record = {};
  passwd* found = nullptr;
  const int error = getpwuid_r(user, &record, entry, size, &found);
  if (error != 0) return error;
  if (found == nullptr || record.pw_name == nullptr) return ENOENT;
  *name = record.pw_name;
  return 0;
}

/// Whether there is memory for a look-up.  The C library ends the process when it finds none for
/// its own list of sources, which it reads at the first look-up.
bool hasRoomForLookUp() {
  constexpr std::size_t ROOM = 64 * 1024;
  char* room = new (std::nothrow) char[ROOM];
  // A pair of new and delete may be left out unless the memory is used.
  __asm__ volatile("" : : "r"(room) : "memory");
  delete[] room;
  return room != nullptr;
}

bool copyName(const char* name, char* buffer, unsigned long* size) {
  const std::size_t length = std::strlen(name);
  if (length >= LOGIN_NAME_BUFFER) return false;
  std::memcpy(buffer, name, length + 1);
  *size = length;
  return true;
}

}  // namespace

bool GetUserName(char* buffer, unsigned long* size) {
  constexpr std::size_t FIRST = 1024;
  constexpr std::size_t LARGEST = 1024 * 1024;
  int error = ERANGE;
  bool copied = false;
  if (!hasRoomForLookUp()) return false;
  for (std::size_t room = FIRST; error == ERANGE && room <= LARGEST; room *= 4) {
    char* entry = new (std::nothrow) char[room];
    if (entry == nullptr) return false;
    const char* name = nullptr;
    error = lookUp(getuid(), entry, room, &name);
    if (error == 0) copied = copyName(name, buffer, size);
    delete[] entry;
  }
  return copied;
}
