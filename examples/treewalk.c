/*
 * treewalk - counts the words of all files below a directory, measured with ARM.
 *
 *     treewalk [--workers N] DIRECTORY
 *
 * The walk is one transaction.  Reading a file, counting its words and summing its bytes up are
 * child transactions of it, done by N worker processes.  The workers are this program again,
 * started with --worker: they read file names from standard input and find the correlator of their
 * parent transaction in the environment variable that arm_getCorrelatorKey names, as lower-case
 * hexadecimal text.
 *
 * Measuring never gets in the way of the work: without an engine the program does the same and says
 * once that it is not being measured.
 */
#define _GNU_SOURCE
#define _FILE_OFFSET_BITS 64
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "armext.h"

#define MAX_WORKERS 64

struct totals {
  uint64_t files;
  uint64_t words;
  uint64_t bytes;
  uint64_t checksum;   /* the sum over all files, so that their order does not matter */
  uint64_t unread;     /* files that could not be read */
  uint64_t unmeasured; /* transactions that did not reach the engine */
};

struct worker {
  pid_t process;
  FILE* names;   /* to the worker: file names, each ended by a zero byte */
  FILE* results; /* from the worker: one line of totals when it has read all names */
};

/* ---- measuring ------------------------------------------------------------------------------- */

/* Calls this program's application by a name that tells a 32-bit and a 64-bit program apart when
 * both run at once.  A negative id may be handed on: calls with it do nothing and return a negative
 * result, so that the program needs no other road without an engine. */
static arm_int32_t begin_application(void) {
  char name[ARM_NAME_SIZE];
  (void)snprintf(name, sizeof name, "treewalk (%d-bit)", (int)sizeof(void*) * 8);
  return arm_init(name, "*", 0, NULL, 0);
}

/* The data block of a start.  It is always 256 bytes, all of which are passed. */
static arm_user_data1_t empty_block(void) {
  arm_user_data1_t block;
  memset(&block, 0, sizeof block);
  block.format = ARM_DATA_FORMAT_1;
  return block;
}

static void write_hex(const arm_correlator_t* correlator, char* text) {
  size_t i;
  for (i = 0; i < ARM_CORRELATOR_SIZE; ++i) {
    (void)snprintf(text + 2 * i, 3, "%02x", (unsigned)correlator->bytes[i]);
  }
}

static int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

/* Reads what write_hex wrote; 0 when the text is anything else. */
static int read_hex(const char* text, arm_correlator_t* correlator) {
  size_t i;
  if (strlen(text) != 2 * ARM_CORRELATOR_SIZE) return 0;
  for (i = 0; i < ARM_CORRELATOR_SIZE; ++i) {
    const int high = hex_digit(text[2 * i]);
    const int low = hex_digit(text[2 * i + 1]);
    if (high < 0 || low < 0) return 0;
    correlator->bytes[i] = (arm_uint8_t)(high * 16 + low);
  }
  return 1;
}

/* Starts the parent transaction and puts its correlator where the workers look for it. */
static arm_int32_t start_parent(arm_int32_t tran_class) {
  arm_user_data1_t block = empty_block();
  char text[2 * ARM_CORRELATOR_SIZE + 1];
  arm_int32_t handle;
  block.flags[0] = ARM_CorrReq_f;
  handle = arm_start(tran_class, 0, &block, sizeof block);
  /* An engine is free not to give a correlator. */
  if (handle < 0 || (block.flags[0] & ARM_CorrGen_f) == 0) {
    if (unsetenv(arm_getCorrelatorKey()) != 0) perror("treewalk: unsetenv");
    return handle;
  }
  write_hex(&block.correlator, text);
  if (setenv(arm_getCorrelatorKey(), text, 1) != 0) perror("treewalk: setenv");
  return handle;
}

/* The block that makes a transaction the child of the one in the environment, if there is one. */
static arm_user_data1_t child_block(void) {
  arm_user_data1_t block = empty_block();
  const char* text = getenv(arm_getCorrelatorKey());
  if (text != NULL && read_hex(text, &block.correlator)) block.flags[0] = ARM_CorrPar_f;
  return block;
}

/* A step of the work that is measured as a transaction: 0 when it failed. */
typedef int (*step)(void* work);

/* Does a step as a child transaction; the work is done whether it is measured or not. */
static int measured(arm_int32_t tran_class, step do_step, void* work, uint64_t* unmeasured) {
  arm_user_data1_t block = child_block();
  const arm_int32_t handle = arm_start(tran_class, 0, &block, sizeof block);
  const int good = do_step(work);
  const arm_int32_t stopped = arm_stop(handle, good ? ARM_GOOD : ARM_FAILED, 0, NULL, 0);
  if (handle < 0 || stopped < 0) ++*unmeasured;
  return good;
}

/* ---- the worker ------------------------------------------------------------------------------ */

struct task {
  const char* name;
  unsigned char* bytes;
  size_t length;
  size_t room;
  struct totals totals;
};

static int make_room(struct task* task) {
  unsigned char* bytes;
  if (task->length < task->room) return 1;
  bytes = realloc(task->bytes, task->room + 65536);
  if (bytes == NULL) return 0;
  task->bytes = bytes;
  task->room += 65536;
  return 1;
}

static int read_file(void* work) {
  struct task* task = work;
  size_t length = 1;
  int good = 1;
  FILE* file = fopen(task->name, "rb");
  task->length = 0;
  if (file == NULL) return 0;
  while (good && length > 0) {
    good = make_room(task);
    if (good) length = fread(task->bytes + task->length, 1, task->room - task->length, file);
    if (good) task->length += length;
  }
  if (ferror(file)) good = 0;
  if (fclose(file) != 0) good = 0;
  return good;
}

static int is_space(int c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

static int count_words(void* work) {
  struct task* task = work;
  int in_word = 0;
  size_t i;
  for (i = 0; i < task->length; ++i) {
    const int space = is_space(task->bytes[i]);
    if (in_word && space) ++task->totals.words;
    in_word = !space;
  }
  if (in_word) ++task->totals.words;
  task->totals.bytes += task->length;
  return 1;
}

static int checksum(void* work) {
  struct task* task = work;
  uint64_t sum = 1;
  size_t i;
  for (i = 0; i < task->length; ++i) sum = sum * 31 + task->bytes[i];
  task->totals.checksum += sum;
  return 1;
}

struct worker_classes {
  arm_int32_t reading;
  arm_int32_t counting;
  arm_int32_t summing;
};

static void work_on(const struct worker_classes* classes, struct task* task) {
  uint64_t* unmeasured = &task->totals.unmeasured;
  if (!measured(classes->reading, read_file, task, unmeasured)) {
    ++task->totals.unread;
    return;
  }
  ++task->totals.files;
  (void)measured(classes->counting, count_words, task, unmeasured);
  (void)measured(classes->summing, checksum, task, unmeasured);
}

static int run_worker(void) {
  const arm_int32_t application = begin_application();
  struct worker_classes classes;
  struct task task;
  char* name = NULL;
  size_t size = 0;
  classes.reading = arm_getid(application, "read a file", "into memory", 0, NULL, 0);
  classes.counting = arm_getid(application, "count its words", "between blanks", 0, NULL, 0);
  classes.summing = arm_getid(application, "checksum it", "31 * sum + byte", 0, NULL, 0);
  memset(&task, 0, sizeof task);
  while (getdelim(&name, &size, '\0', stdin) > 0) {
    task.name = name;
    work_on(&classes, &task);
  }
  free(name);
  free(task.bytes);
  /* What is not measured shows in the counts; an application that cannot be ended adds nothing. */
  (void)arm_end(application, 0, NULL, 0);
  (void)printf("%" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n",
               task.totals.files, task.totals.words, task.totals.bytes, task.totals.checksum,
               task.totals.unread, task.totals.unmeasured);
  return ferror(stdin) || fflush(stdout) != 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

/* ---- the parent ------------------------------------------------------------------------------ */

static void become_worker(int names, int results) {
  char program[] = "treewalk";
  char mode[] = "--worker";
  char* arguments[3];
  arguments[0] = program;
  arguments[1] = mode;
  arguments[2] = NULL;
  if (dup2(names, STDIN_FILENO) < 0 || dup2(results, STDOUT_FILENO) < 0) _exit(EXIT_FAILURE);
  (void)execv("/proc/self/exe", arguments);
  _exit(EXIT_FAILURE);
}

/* The pipes close when a program is executed, so that no worker holds the end of another one. */
static int start_worker(struct worker* worker) {
  int names[2];
  int results[2];
  if (pipe2(names, O_CLOEXEC) != 0) return 0;
  if (pipe2(results, O_CLOEXEC) != 0) {
    (void)close(names[0]);
    (void)close(names[1]);
    return 0;
  }
  worker->process = fork();
  if (worker->process == 0) become_worker(names[0], results[1]);
  (void)close(names[0]);
  (void)close(results[1]);
  worker->names = fdopen(names[1], "w");
  worker->results = fdopen(results[0], "r");
  return worker->process > 0 && worker->names != NULL && worker->results != NULL;
}

/* Collects a worker's totals; 0 when it has not done all its work. */
static int finish_worker(struct worker* worker, struct totals* totals) {
  struct totals t;
  int status = 0;
  int good = fclose(worker->names) == 0;
  if (fscanf(worker->results, "%" SCNu64 "%" SCNu64 "%" SCNu64 "%" SCNu64 "%" SCNu64 "%" SCNu64,
             &t.files, &t.words, &t.bytes, &t.checksum, &t.unread, &t.unmeasured) == 6) {
    totals->files += t.files;
    totals->words += t.words;
    totals->bytes += t.bytes;
    totals->checksum += t.checksum;
    totals->unread += t.unread;
    totals->unmeasured += t.unmeasured;
  } else {
    good = 0;
  }
  if (fclose(worker->results) != 0) good = 0;
  while (waitpid(worker->process, &status, 0) < 0) {
    if (errno != EINTR) return 0;
  }
  return good && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

struct crew {
  struct worker workers[MAX_WORKERS];
  int size;
  int next;
};

static int hand_out(struct crew* crew, const char* name) {
  FILE* names = crew->workers[crew->next].names;
  crew->next = (crew->next + 1) % crew->size;
  return fwrite(name, strlen(name) + 1, 1, names) == 1;
}

static int walk(struct crew* crew, const char* directory);

static int visit(struct crew* crew, const char* path) {
  struct stat status;
  if (lstat(path, &status) != 0) return 0;
  if (S_ISDIR(status.st_mode)) return walk(crew, path);
  return S_ISREG(status.st_mode) ? hand_out(crew, path) : 1;
}

/* Hands out all regular files below a directory; 0 when something could not be visited. */
static int walk(struct crew* crew, const char* directory) {
  struct dirent* entry;
  int good = 1;
  DIR* listing = opendir(directory);
  if (listing == NULL) return 0;
  while ((entry = readdir(listing)) != NULL) {
    char* path;
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (asprintf(&path, "%s/%s", directory, entry->d_name) < 0) {
      good = 0;
      break;
    }
    if (!visit(crew, path)) good = 0;
    free(path);
  }
  if (closedir(listing) != 0) good = 0;
  return good;
}

static int walk_with_workers(const char* directory, int workers, struct totals* totals) {
  struct crew crew;
  int good = 1;
  memset(&crew, 0, sizeof crew);
  while (good && crew.size < workers) {
    good = start_worker(&crew.workers[crew.size]);
    if (good) ++crew.size;
  }
  if (crew.size > 0 && !walk(&crew, directory)) good = 0;
  while (crew.size > 0) {
    if (!finish_worker(&crew.workers[--crew.size], totals)) good = 0;
  }
  return good;
}

static void print_totals(const struct totals* totals, int measured) {
  (void)printf("treewalk (%d-bit): %" PRIu64 " files, %" PRIu64 " words, %" PRIu64
               " bytes, checksum %016" PRIx64 "\n",
               (int)sizeof(void*) * 8, totals->files, totals->words, totals->bytes,
               totals->checksum);
  if (totals->unread > 0) {
    (void)fprintf(stderr, "treewalk: %" PRIu64 " files could not be read\n", totals->unread);
  }
  if (measured && totals->unmeasured > 0) {
    (void)fprintf(stderr, "treewalk: %" PRIu64 " transactions were not measured\n",
                  totals->unmeasured);
  }
}

static int run_parent(const char* directory, int workers) {
  const arm_int32_t application = begin_application();
  const arm_int32_t tran_class = arm_getid(application, "walk a tree", directory, 0, NULL, 0);
  const arm_int32_t handle = start_parent(tran_class);
  struct totals totals = {0, 0, 0, 0, 0, 0};
  int good;
  if (handle < 0) {
    (void)fprintf(stderr, "treewalk: not being measured (arm_init gave %d, arm_start %d)\n",
                  (int)application, (int)handle);
  }
  good = walk_with_workers(directory, workers, &totals) && totals.unread == 0;
  if (arm_stop(handle, good ? ARM_GOOD : ARM_FAILED, 0, NULL, 0) < 0) ++totals.unmeasured;
  if (arm_end(application, 0, NULL, 0) < 0) ++totals.unmeasured;
  print_totals(&totals, handle >= 0);
  if (!good) (void)fprintf(stderr, "treewalk: not all of %s was read\n", directory);
  return good && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* 0 when the text is no number of workers. */
static int parse_workers(const char* text) {
  char* end;
  const long number = strtol(text, &end, 10);
  return *text != '\0' && *end == '\0' && number >= 1 && number <= MAX_WORKERS ? (int)number : 0;
}

static int usage(void) {
  (void)fprintf(stderr, "usage: treewalk [--workers N] DIRECTORY   (N from 1 to %d)\n",
                MAX_WORKERS);
  return 2;
}

int main(int argc, char** argv) {
  int workers = 2;
  if (argc == 2 && strcmp(argv[1], "--worker") == 0) return run_worker();
  if (argc == 4 && strcmp(argv[1], "--workers") == 0) {
    workers = parse_workers(argv[2]);
  } else if (argc != 2) {
    return usage();
  }
  if (workers == 0 || argv[argc - 1][0] == '-') return usage();
  /* A worker that has died shows as a failed write. */
  if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) return EXIT_FAILURE;
  return run_parent(argv[argc - 1], workers);
}
