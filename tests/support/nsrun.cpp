// Runs one command where nothing of the machine can be touched: in mount, IPC and PID namespaces of
// its own, with an empty private /var and /tmp, an /etc of a few copied files, and no privileges.
// Root needs no user namespace; everybody else gets one in which the own ids keep their numbers.
//
//   nsrun [--keep DIR]... [--check-ipc] [--no-aslr] [--beside TEXT] [--] COMMAND [ARGUMENT]...
//
// The exit status is the command's, or 128 + N if signal N ended it. When the command has ended,
// every process that it left is killed.

#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/semaphoreset.h"

namespace {

constexpr int SET_UP_FAILED = 125;
constexpr int CANNOT_EXECUTE = 126;
constexpr int NOT_FOUND = 127;
constexpr int LEFTOVERS = 124;

constexpr const char* COVERED_DIRS[] = {"/var", "/etc", "/tmp"};

// What programs, the dynamic linker and the C library look up in /etc.
constexpr const char* COPIED_FROM_ETC[] = {
    "group",         "hostname", "hosts",     "ld.so.cache", "ld.so.conf", "localtime",
    "nsswitch.conf", "passwd",   "protocols", "services",    "timezone"};
// Hundreds of links, which would take longer to copy than all the rest to set up.
constexpr const char ALTERNATIVES[] = "/etc/alternatives";

struct PrivateDir {
  const char* path;
  mode_t mode;
};

constexpr PrivateDir PRIVATE_DIRS[] = {
    {"/var/tmp", 01777},
    {"/var/kelp", 0777},
    {"/var/orv/kestra/common/QDN/logs", 0777},
    {"/etc/orv/kestra/common/cfg", 0777},
};

// A file system of a few pages: what a full disk does.
constexpr const char* SMALL_DIR = "/var/small";

struct Options {
  std::vector<std::string> keep;
  bool check_ipc = false;
  bool no_aslr = false;
  const char* beside = nullptr;
  char** command = nullptr;
};

struct KeptTree {
  std::string path;
  int mount;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  std::fputs("nsrun: ", stderr);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fprintf(stderr, " (%s)\n", std::strerror(error));
  std::exit(SET_UP_FAILED);
}

[[noreturn]] void usage() {
  std::fputs(
      "usage: nsrun [--keep DIR]... [--check-ipc] [--no-aslr] [--beside TEXT] [--] COMMAND "
      "[ARGUMENT]...\n"
      "  --keep DIR   DIR stays visible even if it lies below /var, /etc or /tmp\n"
      "  --check-ipc  fail if the command leaves System V objects behind\n"
      "  --no-aslr    run the command without address randomisation\n"
      "  --beside TEXT  a command of the shell that runs as well, in an IPC namespace of its own\n",
      stderr);
  std::exit(SET_UP_FAILED);
}

Options parseOptions(int argc, char** argv) {
  static const option LONG[] = {{"keep", required_argument, nullptr, 'k'},
                                {"check-ipc", no_argument, nullptr, 'i'},
                                {"no-aslr", no_argument, nullptr, 'a'},
                                {"beside", required_argument, nullptr, 'b'},
                                {nullptr, 0, nullptr, 0}};
  Options options;
  for (int choice; (choice = getopt_long(argc, argv, "+", LONG, nullptr)) != -1;) {
    switch (choice) {
      case 'k':
        options.keep.emplace_back(optarg);
        break;
      case 'i':
        options.check_ipc = true;
        break;
      case 'a':
        options.no_aslr = true;
        break;
      case 'b':
        options.beside = optarg;
        break;
      default:
        usage();
    }
  }
  if (optind >= argc) usage();
  options.command = argv + optind;
  return options;
}

// ---- namespaces ---------------------------------------------------------------------------------

void writeFile(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    fail("cannot set up a user namespace: %s refuses '%s'", path, text.c_str());
  close(file);
}

std::string mapOfOne(unsigned id) {
  return std::to_string(id) + " " + std::to_string(id) + " 1";
}

void enterNamespaces() {
  constexpr int SPACES = CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID;
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(SPACES) == 0) return;
  if (unshare(SPACES | CLONE_NEWUSER) != 0)
    fail("this machine refuses namespaces: allow user namespaces, or run as root");
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", mapOfOne(user));
  writeFile("/proc/self/gid_map", mapOfOne(group));
}

// ---- the private file tree ----------------------------------------------------------------------

void makeMountsPrivate() {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return;
  if (errno == EINVAL)
    fail("the root directory is not a mount point: bind-mount it on itself before the chroot");
  fail("cannot make the mounts private");
}

bool isBelow(const std::string& path, const std::string& dir) {
  return path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

bool isCovered(const std::string& path) {
  for (const char* dir : COVERED_DIRS)
    if (isBelow(path, dir)) return true;
  return false;
}

std::string realPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) fail("cannot find %s", path.c_str());
  return resolved;
}

KeptTree takeTree(const std::string& path) {
  const int tree =
      open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
  if (tree < 0) fail("cannot keep %s", path.c_str());
  return {path, tree};
}

std::vector<KeptTree> takeKeptTrees(const std::vector<std::string>& paths) {
  std::vector<KeptTree> trees;
  for (const std::string& path : paths) {
    const std::string real = realPath(path);
    if (isCovered(real)) trees.push_back(takeTree(real));
  }
  return trees;
}

void makeReadOnly(int tree) {
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes) != 0)
    fail("cannot make %s read-only", ALTERNATIVES);
}

/// None on a system without.
std::vector<KeptTree> takeAlternatives() {
  if (access(ALTERNATIVES, F_OK) != 0) return {};
  const KeptTree tree = takeTree(ALTERNATIVES);
  makeReadOnly(tree.mount);
  return {tree};
}

void makeDirs(const std::string& path, mode_t mode) {
  for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
    mkdir(path.substr(0, end).c_str(), 0755);
  mkdir(path.c_str(), mode);
  if (chmod(path.c_str(), mode) != 0) fail("cannot make %s", path.c_str());
}

void placeTree(const KeptTree& tree) {
  makeDirs(tree.path, 0755);
  if (move_mount(tree.mount, "", AT_FDCWD, tree.path.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
    fail("cannot keep %s", tree.path.c_str());
  close(tree.mount);
}

void copyLink(int from_dir, int to_dir, const char* name) {
  char target[PATH_MAX] = {};
  if (readlinkat(from_dir, name, target, sizeof target - 1) <= 0) return;
  if (symlinkat(target, to_dir, name) != 0) fail("cannot copy the link %s", name);
}

void copyFile(int from_dir, int to_dir, const char* name) {
  const int from = openat(from_dir, name, O_RDONLY | O_CLOEXEC);
  if (from < 0) return;
  const int to = openat(to_dir, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  char block[65536];
  for (ssize_t got; (got = read(from, block, sizeof block)) > 0;)
    if (write(to, block, static_cast<size_t>(got)) != got) fail("cannot copy /etc/%s", name);
  close(to);
  close(from);
}

void copyEntry(int from_dir, int to_dir, const char* name) {
  struct stat info;
  if (fstatat(from_dir, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (S_ISLNK(info.st_mode)) copyLink(from_dir, to_dir, name);
  if (S_ISREG(info.st_mode)) copyFile(from_dir, to_dir, name);
}

int openDir(const char* path) {
  const int dir = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) fail("cannot open %s", path);
  return dir;
}

void mountEmpty(const char* dir, const char* options) {
  if (mount("tmpfs", dir, "tmpfs", MS_NOSUID | MS_NODEV, options) != 0)
    fail("cannot mount an empty %s", dir);
}

void writeHosts(int etc) {
  constexpr char HOSTS[] = "127.0.0.1 localhost\n::1 localhost\n";
  const int file = openat(etc, "hosts", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0 || write(file, HOSTS, sizeof HOSTS - 1) != sizeof HOSTS - 1)
    fail("cannot write /etc/hosts");
  close(file);
}

void fillEtc(int machine_etc) {
  const int etc = openDir("/etc");
  for (const char* name : COPIED_FROM_ETC) copyEntry(machine_etc, etc, name);
  // A minimal system has none, and localhost is then unknown.
  if (faccessat(etc, "hosts", F_OK, 0) != 0) writeHosts(etc);
  close(etc);
}

void fillVar() {
  if (symlink("/run", "/var/run") != 0 || symlink("/run/lock", "/var/lock") != 0)
    fail("cannot fill /var");
}

void buildFileTree(const Options& options) {
  makeMountsPrivate();
  const std::vector<KeptTree> kept = takeKeptTrees(options.keep);
  const std::vector<KeptTree> alternatives = takeAlternatives();
  const int machine_etc = openDir("/etc");
  for (const char* dir : COVERED_DIRS) {
    mountEmpty(dir, std::strcmp(dir, "/tmp") == 0 ? "mode=1777" : "mode=0755");
  }
  const mode_t mask = umask(0);
  fillEtc(machine_etc);
  fillVar();
  for (const PrivateDir& dir : PRIVATE_DIRS) makeDirs(dir.path, dir.mode);
  makeDirs(SMALL_DIR, 0777);
  mountEmpty(SMALL_DIR, "size=16k,mode=0777");
  for (const auto& trees : {kept, alternatives}) {
    for (const KeptTree& tree : trees) placeTree(tree);
  }
  umask(mask);
  close(machine_etc);
  // Containers may refuse a new /proc; the one that is there then shows the outer process ids.
  (void)mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

// ---- signals and processes ----------------------------------------------------------------------

sigset_t supervisedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

int exitCodeOf(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Reaps every child that has ended. True if `child` was among them; its exit code is then set.
bool reap(pid_t child, int& exit_code) {
  bool ended = false;
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (pid != child) continue;
    exit_code = exitCodeOf(status);
    ended = true;
  }
  return ended;
}

// Waits for `child`, passing signals on. One from the terminal has reached the child by itself.
int supervise(pid_t child) {
  const sigset_t signals = supervisedSignals();
  int exit_code = 0;
  while (!reap(child, exit_code)) {
    siginfo_t info;
    if (sigwaitinfo(&signals, &info) < 0) continue;
    if (info.si_signo != SIGCHLD && info.si_code <= 0) kill(child, info.si_signo);
  }
  return exit_code;
}

void killTheRest() {
  kill(-1, SIGKILL);
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) continue;
}

void dropPrivileges() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  // Root would get its capabilities back when it executes a program, which would then run in the
  // mode of set-user-id programs, without LD_LIBRARY_PATH and without a personality.
  if (prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED, 0, 0, 0) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    fail("cannot renounce privileges");
  if (syscall(SYS_capset, &header, none) != 0) fail("cannot drop the capabilities");
}

void limitSideEffects(const Options& options) {
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  if (options.no_aslr && personality(ADDR_NO_RANDOMIZE) == -1)
    fail("cannot switch address randomisation off");
}

[[noreturn]] void execute(const Options& options, const char* const* command,
                          const sigset_t& mask) {
  dropPrivileges();
  limitSideEffects(options);
  unsetenv("TMPDIR");
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(command[0], const_cast<char* const*>(command));
  const int code = errno == ENOENT ? NOT_FOUND : CANNOT_EXECUTE;
  std::fprintf(stderr, "nsrun: cannot execute %s (%s)\n", command[0], std::strerror(errno));
  _exit(code);
}

// Made here, since the command may not make namespaces: it has no privileges, and below a changed
// root nobody gets a user namespace.
[[noreturn]] void executeBeside(const Options& options, const sigset_t& mask) {
  if (unshare(CLONE_NEWIPC) != 0) fail("cannot make another IPC namespace");
  const char* const command[] = {"sh", "-c", options.beside, nullptr};
  execute(options, command, mask);
}

pid_t forkOrFail() {
  const pid_t pid = fork();
  if (pid < 0) fail("cannot make a process");
  return pid;
}

// ---- leftovers ----------------------------------------------------------------------------------

void reportLeftover(const char* kind, int id, key_t key) {
  std::fprintf(stderr, "nsrun: left behind: %s, id %d, key 0x%08x\n", kind, id,
               static_cast<unsigned>(key));
}

int countSegments() {
  int count = 0;
  shm_info info;
  const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
  for (int index = 0; index <= last; ++index) {
    shmid_ds segment;
    const int id = shmctl(index, SHM_STAT_ANY, &segment);
    if (id < 0) continue;
    reportLeftover("shared memory segment", id, segment.shm_perm.__key);
    ++count;
  }
  return count;
}

int countSets() {
  int count = 0;
  seminfo info;
  TSemArgument argument = {};
  argument.buf = reinterpret_cast<semid_ds*>(&info);
  const int last = semctl(0, 0, SEM_INFO, argument);
  for (int index = 0; index <= last; ++index) {
    semid_ds set;
    argument.buf = &set;
    const int id = semctl(index, 0, SEM_STAT_ANY, argument);
    if (id < 0) continue;
    reportLeftover("semaphore set", id, set.sem_perm.__key);
    ++count;
  }
  return count;
}

int countMessageQueues() {
  int count = 0;
  msginfo info;
  const int last = msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&info));
  for (int index = 0; index <= last; ++index) {
    msqid_ds queue;
    const int id = msgctl(index, MSG_STAT_ANY, &queue);
    if (id < 0) continue;
    reportLeftover("message queue", id, queue.msg_perm.__key);
    ++count;
  }
  return count;
}

int afterCommand(const Options& options, int exit_code) {
  killTheRest();
  if (!options.check_ipc) return exit_code;
  const int leftovers = countSegments() + countSets() + countMessageQueues();
  return leftovers != 0 && exit_code == 0 ? LEFTOVERS : exit_code;
}

// ---- the two supervisors ------------------------------------------------------------------------

void dieWithOuter(int outer_alive) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  pollfd outer = {outer_alive, POLLIN, 0};
  if (poll(&outer, 1, 0) != 0) _exit(SET_UP_FAILED);
}

// Process 1 of the new PID namespace: when it ends, the kernel kills whatever is left in there.
[[noreturn]] void runInner(const Options& options, const std::string& cwd, const sigset_t& mask) {
  buildFileTree(options);
  if (chdir(cwd.c_str()) != 0 && chdir("/") != 0) fail("cannot enter a directory");
  if (options.beside != nullptr && forkOrFail() == 0) executeBeside(options, mask);
  const pid_t command = forkOrFail();
  if (command == 0) execute(options, options.command, mask);
  _exit(afterCommand(options, supervise(command)));
}

int runOuter(const Options& options) {
  const sigset_t signals = supervisedSignals();
  sigset_t mask;
  sigprocmask(SIG_BLOCK, &signals, &mask);
  const std::string cwd = realPath(".");
  int alive[2];
  if (pipe2(alive, O_CLOEXEC) != 0) fail("cannot make a pipe");
  enterNamespaces();
  const pid_t inner = forkOrFail();
  if (inner == 0) {
    close(alive[1]);
    dieWithOuter(alive[0]);
    runInner(options, cwd, mask);
  }
  return supervise(inner);
}

}  // namespace

int main(int argc, char** argv) {
  return runOuter(parseOptions(argc, argv));
}
