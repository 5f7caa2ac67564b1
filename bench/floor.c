#include "floor.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

enum { RECORD_SIZE = 4116, REPLY_SIZE = 528, ITEM_SIZE = 532, HEAD_SIZE = 16 };
enum { REQUEST_HEADER = 28, REPLY_HEADER = 12 };
enum { LOCK = 0, CREATOR = 1, ENGINE_LIVES = 2 };
enum { EMPTY_COUNT = 0, EMPTY_LOCK = 1 };
enum { MSG_START = 3 };

struct request_header {
  uint16_t count, head, tail, padding;
  uint32_t state, overflow_waiters, empty_waiters, version, ready;
};

struct reply_header {
  uint16_t used_items, heads_in_use;
  uint32_t free_list, state;
};

struct head {
  uint8_t status, padding;
  uint16_t semaphore;
  int32_t process;
  uint32_t thread;
  uint32_t first_reply;
};

struct start_record {
  int32_t process;
  uint32_t thread;
  int32_t type;
  int32_t tran_id;
  int32_t flags;
  uint8_t data[256];
  int32_t data_size;
  uint32_t seconds, nanoseconds;
  uint8_t rest[RECORD_SIZE - 288];
};

_Static_assert(sizeof(struct request_header) == REQUEST_HEADER, "size");
_Static_assert(sizeof(struct reply_header) == REPLY_HEADER, "size");
_Static_assert(sizeof(struct head) == HEAD_SIZE, "size");
_Static_assert(sizeof(struct start_record) == RECORD_SIZE, "size");

static int request_set, empty_set, reply_set, wake_set;
static uint16_t slots, heads;
static struct request_header* requests;
static struct reply_header* replies;
static __thread uint16_t own_head;

static key_t keyOf(const char* name, int project) {
  const char* prefix = getenv("ARM_AGENT_PREFIX");
  char path[256];
  (void)snprintf(path, sizeof path, "/var/kelp/%s%s%s", name, prefix != NULL ? "." : "",
                 prefix != NULL ? prefix : "");
  return ftok(path, project);
}

static int setOf(const char* name, int project) {
  return semget(keyOf(name, project), 0, 0);
}

static void* segmentOf(const char* name, size_t* size) {
  const int id = shmget(keyOf(name, 2), 0, 0);
  void* address = shmat(id, NULL, 0);
  struct shmid_ds info;
  *size = shmctl(id, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
  return address;
}

int floorOpen(void) {
  size_t request_size = 0;
  size_t reply_size = 0;
  request_set = setOf("controls_ae.kelp_mem", 1);
  empty_set = setOf("controls_ae.kelp_emp", 1);
  reply_set = setOf("controls_ea.kelp", 1);
  wake_set = setOf("controls_ea.kelp", 3);
  requests = segmentOf("controls_ae.kelp_mem", &request_size);
  replies = segmentOf("controls_ea.kelp", &reply_size);
  if (request_set < 0 || empty_set < 0 || reply_set < 0 || wake_set < 0) return -1;
  if (request_size == 0 || reply_size == 0) return -1;
  slots = (uint16_t)((request_size - REQUEST_HEADER) / RECORD_SIZE);
  heads = (uint16_t)((reply_size - REPLY_HEADER) / (HEAD_SIZE + ITEM_SIZE));
  return 0;
}

static void operate(int set, struct sembuf* operations, size_t count) {
  while (semop(set, operations, count) != 0 && errno == EINTR) {
  }
}

static void lock(int set, unsigned short semaphore) {
  struct sembuf both[2] = {{semaphore, 0, 0}, {semaphore, 1, SEM_UNDO}};
  operate(set, both, 2);
}

static void unlock(int set, unsigned short semaphore) {
  struct sembuf one = {semaphore, -1, IPC_NOWAIT | SEM_UNDO};
  (void)semop(set, &one, 1);
}

static int engineLives(void) {
  return semctl(request_set, CREATOR, GETVAL) == ENGINE_LIVES;
}

static uint32_t ownThread(void) {
#ifdef __LP64__
  static __thread uint32_t id;
  if (id == 0) id = (uint32_t)syscall(SYS_gettid);
  return id;
#else
  return (uint32_t)pthread_self();
#endif
}

static void fill(struct start_record* record, int32_t tran_id) {
  struct timeval now;
  record->process = getpid();
  record->thread = ownThread();
  record->type = MSG_START;
  record->tran_id = tran_id;
  (void)gettimeofday(&now, NULL);
  record->seconds = (uint32_t)now.tv_sec;
  record->nanoseconds = (uint32_t)now.tv_usec * 1000U;
}

static void wakeEngine(void) {
  struct sembuf add = {EMPTY_COUNT, 1, 0};
  lock(empty_set, EMPTY_LOCK);
  (void)semctl(empty_set, EMPTY_COUNT, GETVAL);
  (void)semop(empty_set, &add, 1);
  unlock(empty_set, EMPTY_LOCK);
}

static void post(const struct start_record* record) {
  uint8_t* ring = (uint8_t*)requests + REQUEST_HEADER;
  lock(request_set, LOCK);
  memcpy(ring + (size_t)requests->tail * RECORD_SIZE, record, RECORD_SIZE);
  requests->tail = (uint16_t)((requests->tail + 1) % slots);
  if (++requests->count == 1) wakeEngine();
  unlock(request_set, LOCK);
}

static int isOf(const struct head* head, int32_t process, uint32_t thread) {
  return head->process == process && head->thread == thread;
}

static struct head* findHead(int32_t process, uint32_t thread) {
  struct head* all = (struct head*)(replies + 1);
  for (int wanted = 0; wanted < 2; ++wanted) {
    const int32_t p = wanted == 0 ? process : -1;
    const uint32_t t = wanted == 0 ? thread : UINT32_MAX;
    for (uint16_t i = 0; i < heads; ++i) {
      if (!isOf(&all[i], p, t)) continue;
      own_head = i;
      if (wanted == 0) return &all[i];
      all[i].process = process;
      all[i].thread = thread;
      ++replies->heads_in_use;
      return &all[i];
    }
  }
  abort();
}

static struct head* rememberedHead(int32_t process, uint32_t thread) {
  struct head* head = (struct head*)(replies + 1) + own_head;
  return isOf(head, process, thread) ? head : findHead(process, thread);
}

static void takeFirst(struct head* head, void* reply) {
  const uint32_t offset = head->first_reply;
  uint8_t* item = (uint8_t*)replies + offset;
  memcpy(reply, item, REPLY_SIZE);
  memcpy(&head->first_reply, item + REPLY_SIZE, sizeof head->first_reply);
  memcpy(item + REPLY_SIZE, &replies->free_list, sizeof replies->free_list);
  replies->free_list = offset;
  --replies->used_items;
}

static int32_t receive(int scanning) {
  int32_t reply[REPLY_SIZE / 4];
  const int32_t process = getpid();
  const uint32_t thread = ownThread();
  struct head* head;
  if (!engineLives()) return -2;
  lock(reply_set, LOCK);
  head = scanning ? findHead(process, thread) : rememberedHead(process, thread);
  do {
    struct sembuf take = {head->semaphore, -1, 0};
    head->status = 1;
    unlock(reply_set, LOCK);
    operate(wake_set, &take, 1);
    lock(reply_set, LOCK);
  } while (head->first_reply == 0);
  takeFirst(head, reply);
  if (semctl(wake_set, head->semaphore, GETNCNT) == 0) head->status = 0;
  unlock(reply_set, LOCK);
  return reply[0];
}

static int32_t start(int32_t tran_id, int scanning) {
  /* Cleared once, since nothing ever writes to what a start does not use. */
  static __thread struct start_record record;
  if (!engineLives()) return -2;
  fill(&record, tran_id);
  if (!engineLives()) return -2;
  post(&record);
  return receive(scanning);
}

int32_t floorStart(int32_t tran_id) {
  return start(tran_id, 0);
}

int32_t floorStartScanning(int32_t tran_id) {
  return start(tran_id, 1);
}
