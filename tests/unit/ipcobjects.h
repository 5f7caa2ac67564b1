#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace armtest {

/// The identifier of the semaphore set or segment of a name file's project; -1 when there is none.
int setOf(const std::string& path, int project = 1);
int segmentOf(const std::string& path, int project = 2);

/// Makes a name file and the set or segment of its project.
int makeSet(const std::string& path, int semaphores, int project = 1);
int makeSegment(const std::string& path, size_t size, int project = 2);

bool setExists(int set);
bool segmentExists(int segment);
/// Attachments of a segment, in all processes.
unsigned long attachments(int segment);

int semaphoreValue(int set, int number);
void setSemaphore(int set, int number, int value);
/// Waits until a process or thread sleeps until the semaphore can be lowered, or is zero.
bool sleeperComes(int set, int number);
bool sleeperForZeroComes(int set, int number);

}  // namespace armtest
