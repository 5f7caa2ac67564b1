#pragma once

#include <cstdint>
#include <string_view>

// Where the interprocess objects that library and engine share are found, and what the semaphores
// of their sets are for.  Everything that makes, opens or looks at them goes by this table.
//
// Each key is ftok(path, project).  The path is the name below, with "." and the value of
// ARM_AGENT_PREFIX behind it when that is set, cut to one character less than its limit
// (CIPCUtils::createIPCName).  Each path exists as a file before its object does.
//
// | object                            | name                            | limit | project |
// |-----------------------------------|---------------------------------|-------|---------|
// | request queue, segment            | /var/kelp/controls_ae.kelp_mem  | 125   | 2       |
// | request queue, lock set           | the same                        | 125   | 1       |
// | request queue, overflow semaphore | /var/kelp/controls_ae.kelp_ovr  | 128   | 1       |
// | request queue, empty semaphore    | /var/kelp/controls_ae.kelp_emp  | 128   | 1       |
// | reply queue, segment              | /var/kelp/controls_ea.kelp      | 125   | 2       |
// | reply queue, lock set             | the same                        | 125   | 1       |
// | reply queue, wake-up set          | the same                        | 123   | 3       |
//
// | set                | semaphore  | meaning                                                  |
// |--------------------|------------|----------------------------------------------------------|
// | lock set           | 0          | 0 free, 1 held                                           |
// |                    | 1          | creator: 0 not initialised, 1 has exited, 2 lives        |
// | counting semaphore | 0          | the count                                                |
// |                    | 1          | makes a post's check and addition one step: 0 free       |
// |                    | 2          | the largest count                                        |
// | wake-up set        | 0          | 1 once the set is initialised                            |
// |                    | 1          | the writer's wait for room                               |
// |                    | 2 to n + 1 | one for each of n head records: its owner's wake-ups     |

/// The directory of the name files.
inline constexpr const char* NAME_DIRECTORY = "/var/kelp";

/// What the queue classes are given: the control files.
inline constexpr const char* REQUEST_QUEUE_NAME = "/var/kelp/controls_ae.kelp";
inline constexpr const char* REPLY_QUEUE_NAME = "/var/kelp/controls_ea.kelp";

/// What the request queue appends for its parts, and what that gives for the engine's.
inline constexpr const char* OVERFLOW_SUFFIX = "_ovr";
inline constexpr const char* EMPTY_SUFFIX = "_emp";
inline constexpr const char* SEGMENT_SUFFIX = "_mem";
inline constexpr const char* OVERFLOW_NAME = "/var/kelp/controls_ae.kelp_ovr";
inline constexpr const char* EMPTY_NAME = "/var/kelp/controls_ae.kelp_emp";
inline constexpr const char* REQUEST_SEGMENT_NAME = "/var/kelp/controls_ae.kelp_mem";

/// Deliberate (path-limits): each kind of object cuts its path at a length of its own.
inline constexpr int COUNTING_PATH_LIMIT = 128;
inline constexpr int SEGMENT_PATH_LIMIT = 125;
inline constexpr int WAKE_SET_PATH_LIMIT = 123;

/// Project numbers; the first is that of lock sets and of counting semaphores.
inline constexpr int SET_PROJECT = 1;
inline constexpr int SEGMENT_PROJECT = 2;
inline constexpr int WAKE_SET_PROJECT = 3;

/// Permissions of segments and sets: everybody's.
inline constexpr int OBJECT_ACCESS = 0666;

inline constexpr uint16_t LOCK_SET_LOCK = 0;
inline constexpr uint16_t LOCK_SET_CREATOR = 1;
inline constexpr uint16_t LOCK_SET_SIZE = 2;
inline constexpr uint16_t CREATOR_EXITED = 1;
inline constexpr uint16_t CREATOR_LIVES = 2;

inline constexpr uint16_t COUNTING_SET_COUNT = 0;
inline constexpr uint16_t COUNTING_SET_LOCK = 1;
inline constexpr uint16_t COUNTING_SET_MAXIMUM = 2;
inline constexpr uint16_t COUNTING_SET_SIZE = 3;
/// The largest maximum of a counting semaphore: one below the kernel's largest value.
inline constexpr uint16_t LARGEST_COUNT = 32766;

inline constexpr uint16_t WAKE_SET_INITIALIZED = 0;
inline constexpr uint16_t WAKE_SET_ROOM = 1;
/// Of the first head record; also the semaphores that a set has besides those of head records.
inline constexpr uint16_t WAKE_SET_FIRST_HEAD = 2;

/// Whether a name is a control file's with a suffix.
constexpr bool isNameOf(std::string_view name, std::string_view queue, std::string_view suffix) {
  return name.size() == queue.size() + suffix.size() && name.substr(0, queue.size()) == queue &&
         name.substr(queue.size()) == suffix;
}

static_assert(isNameOf(OVERFLOW_NAME, REQUEST_QUEUE_NAME, OVERFLOW_SUFFIX));
static_assert(isNameOf(EMPTY_NAME, REQUEST_QUEUE_NAME, EMPTY_SUFFIX));
static_assert(isNameOf(REQUEST_SEGMENT_NAME, REQUEST_QUEUE_NAME, SEGMENT_SUFFIX));
static_assert(isNameOf(REQUEST_QUEUE_NAME, NAME_DIRECTORY, "/controls_ae.kelp"));
static_assert(isNameOf(REPLY_QUEUE_NAME, NAME_DIRECTORY, "/controls_ea.kelp"));
static_assert(SET_PROJECT != SEGMENT_PROJECT && SET_PROJECT != WAKE_SET_PROJECT &&
              SEGMENT_PROJECT != WAKE_SET_PROJECT);
