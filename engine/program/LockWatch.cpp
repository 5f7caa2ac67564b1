#include "program/LockWatch.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <chrono>
#include <ctime>
#include <fstream>

#include "platform/semaphoreset.h"
#include "program/Log.h"
#include "system/ProcessStat.h"
#include "text/Columns.h"

namespace armengine {

namespace {

constexpr std::chrono::milliseconds BETWEEN_LOCK_CHECKS{250};
constexpr std::time_t LONG_HELD = 1;
constexpr int LOCK_SEMAPHORE = 0;

/// The process that has held a lock for a second, 0 when none has.  The kernel keeps the second of
/// the last operation that succeeded on the set, and who made it: while the lock is held nobody
/// else's does.
int longHolder(int set) {
  semid_ds times = {};
  TSemArgument argument = {};
  argument.buf = &times;
  if (semctl(set, 0, IPC_STAT, argument) < 0 || semctl(set, LOCK_SEMAPHORE, GETVAL) != 1) return 0;
  // One more, since both are whole seconds.
  const bool held = std::time(nullptr) - times.sem_otime > LONG_HELD;
  return held ? semctl(set, LOCK_SEMAPHORE, GETPID) : 0;
}

std::string nameOf(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/comm");
  std::string name;
  std::getline(file, name);
  return armtext::printable(name, 16);
}

bool dumpsCore(int process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("CoreDumping:", 0) == 0) return line.find('1') != std::string::npos;
  }
  return false;
}

/// What keeps the process, as a part of a sentence, and what helps.
std::string stateOf(int process) {
  if (dumpsCore(process)) return "which writes a core dump; its end gives the lock back";
  const auto stat = processStat(process);
  if (stat && (stat->state == 'T' || stat->state == 't')) {
    return "which is stopped; let it go on (kill -CONT) or end it";
  }
  return "; if it does not go on, end it, which gives the lock back";
}

std::string sentence(int process, const std::string& what) {
  const std::string state = stateOf(process);
  return "every call waits: the lock of the " + what + " has been held for a second by process " +
         std::to_string(process) + " (" + nameOf(process) + ")" + (state[0] == ';' ? "" : ", ") +
         state;
}

}  // namespace

LockWatch::LockWatch(EngineQueues& queues)
    : locks_{{"request queue", queues.requests().lockSet()},
             {"reply queue", queues.replies().lockSet()}},
      thread_([this] { run(); }) {}

LockWatch::~LockWatch() {
  ending_.announce();
  thread_.join();
}

void LockWatch::run() {
  while (ending_.pause(BETWEEN_LOCK_CHECKS)) {
    for (Lock& lock : locks_) check(lock);
  }
}

/// Told at the second check in a row: a clock that was set ahead makes any holder look like an old
/// one once.
void LockWatch::check(Lock& lock) {
  const int holder = longHolder(lock.set);
  if (lock.told && holder == 0) {
    writeLog(Urgency::warning, "the lock of the " + lock.what + " is free again");
    lock.told = false;
  }
  if (holder != 0 && holder == lock.suspect && !lock.told) {
    writeLog(Urgency::warning, sentence(holder, lock.what));
    lock.told = true;
  }
  lock.suspect = holder;
}

}  // namespace armengine
