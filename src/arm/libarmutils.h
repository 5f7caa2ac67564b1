#pragma once

#include <atomic>

#include "platform/CkesMutex.h"

/// Guards the one ICU converter and the setting of ICU_DATA.
extern CkesMutex VCodesetMutex;
/// Guards the test and first opening of the connection in CheckEngineStatus.
extern CkesMutex VInitMutex;
/// True while the connection is believed open; read outside the mutex.
extern std::atomic<bool> IPCInitialized;

/// 0 when the engine can be used, -2 when it cannot.  Opens the connection when it is not open;
/// when the engine is dead, closes and opens it once more.  No delay and no back-off.  Any thread;
/// two threads that both see a dead engine may both close and re-open the connection.
int CheckEngineStatus();

/// True when the first 29 characters of a name are "ORV Mendoras Throughput Probe"; false for null.
/// Nothing in the library calls it.
bool isMTPAppName(const char* name);

/// Room that GetUserName's buffer must offer.
inline constexpr unsigned LOGIN_NAME_BUFFER = 1024;

/// Looks up the login name of the process's real user.  Copies it into buffer, which offers
/// LOGIN_NAME_BUFFER bytes, stores its length through size and returns true; false, with nothing
/// stored, when there is no such user, the name is longer, or memory is short.
bool GetUserName(char* buffer, unsigned long* size);
