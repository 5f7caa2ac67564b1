#pragma once

#include <sys/sem.h>

#include <cstddef>

/// The fourth argument of semctl, which POSIX leaves to the caller to define.
union TSemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

/// One semop, repeated while a signal interrupts it.  0, or negative with errno set.
int semopThroughSignals(int set, sembuf* operations, std::size_t count);
