// Checks of the machine around an engine: other programs, the login manager, the kernel's limits.

#include <dirent.h>
#include <pwd.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "armstat/Doctor.h"
#include "armstat/Processes.h"
#include "common/Words.h"
#include "ipc/EngineObjects.h"
#include "platform/semaphoreset.h"
#include "system/Limits.h"
#include "system/NameFiles.h"

namespace armstat {

namespace {

// ---- users of the library -----------------------------------------------------------------------

std::string nameOf(const User& user) {
  return "process " + std::to_string(user.process) + " (" + user.name + ")";
}

Findings checkUser(const User& user, const Picture& picture) {
  if (user.other_ipc) {
    return {{Level::problem, nameOf(user) + " lives in another IPC namespace (a container?)",
             "let it share this one (--ipc=host, or the namespace of the engine's container), or "
             "run an engine beside it"}};
  }
  if (user.same_key == false) {
    return {{Level::problem,
             nameOf(user) + " sees another " + NAME_DIRECTORY + " and so makes other keys",
             std::string("mount this ") + NAME_DIRECTORY + " into its container"}};
  }
  if (user.prefix_known && user.prefix != picture.prefix) {
    return {{Level::note,
             nameOf(user) + (user.prefix ? " uses the prefix '" + *user.prefix + "'"
                                         : std::string(" uses no prefix")),
             "if it is to be measured by this engine, give it the same ARM_AGENT_PREFIX"}};
  }
  return {};
}

// ---- the login manager --------------------------------------------------------------------------

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// What a configuration file says of RemoveIPC, if anything.
std::optional<bool> removeIpcIn(const std::string& path) {
  std::ifstream file(path);
  std::optional<bool> value;
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || trimmed(line.substr(0, equals)) != "RemoveIPC") continue;
    std::string word = trimmed(line.substr(equals + 1));
    std::transform(word.begin(), word.end(), word.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    value = word == "yes" || word == "true" || word == "on" || word == "1" || word == "y" ||
            word == "t";
  }
  return value;
}

/// The configuration files in the order in which they are read.  One of a name hides those of the
/// same name in later directories.
std::vector<std::string> loginFiles(const std::string& root) {
  std::vector<std::string> files;
  std::map<std::string, std::string> parts;
  for (const char* directory :
       {"/etc/systemd", "/run/systemd", "/usr/local/lib/systemd", "/usr/lib/systemd"}) {
    const std::string main = root + directory + "/logind.conf";
    if (files.empty() && access(main.c_str(), R_OK) == 0) files.push_back(main);
    const std::string part_directory = main + ".d/";
    DIR* entries = opendir(part_directory.c_str());
    if (entries == nullptr) continue;
    while (const dirent* entry = readdir(entries)) {
      const std::string name = entry->d_name;
      const std::string ending = ".conf";
      if (name.size() > ending.size() &&
          name.compare(name.size() - ending.size(), ending.size(), ending) == 0) {
        parts.emplace(name, part_directory + name);
      }
    }
    (void)closedir(entries);
  }
  for (const auto& [name, path] : parts) files.push_back(path);
  return files;
}

/// The largest number of a system user.
uid_t largestSystemUser(const std::string& root) {
  constexpr uid_t USUAL = 999;
  std::ifstream file(root + "/etc/login.defs");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string key;
    uid_t value = 0;
    if (words >> key >> value && key == "SYS_UID_MAX") return value;
  }
  return USUAL;
}

bool hasLoginManager(const std::string& root) {
  struct stat status = {};
  return stat((root + "/run/systemd/system").c_str(), &status) == 0;
}

// ---- limits -------------------------------------------------------------------------------------

struct Need {
  unsigned long sets = 5;
  unsigned long semaphores = 0;
  unsigned long set_size = 0;
  unsigned long segments = 2;
  unsigned long segment_size = 0;
  unsigned long bytes = 0;
};

Need usualNeed() {
  Need need;
  need.set_size = armengine::USUAL_REQUESTERS + WAKE_SET_FIRST_HEAD;
  need.semaphores = need.set_size + 2UL * LOCK_SET_SIZE + 2UL * COUNTING_SET_SIZE;
  const unsigned long requests = requestQueueSize(armengine::USUAL_REQUESTS, sizeof(TArmMessage));
  const unsigned long replies = replyQueueSize<TArmReplyMessage>(armengine::USUAL_REQUESTERS);
  need.segment_size = std::max(requests, replies);
  need.bytes = requests + replies;
  return need;
}

/// Room that is left; a limit can be lowered below what is used.
unsigned long left(unsigned long limit, unsigned long used) {
  return limit > used ? limit - used : 0;
}

}  // namespace

Findings checkUsers(const std::vector<User>& users, unsigned unreadable, const Picture& picture) {
  Findings findings;
  for (const User& user : users) {
    const Findings some = checkUser(user, picture);
    findings.insert(findings.end(), some.begin(), some.end());
  }
  if (findings.empty()) {
    findings.push_back({Level::good,
                        "all processes that have loaded libarm (" + std::to_string(users.size()) +
                            ") look for this engine",
                        ""});
  }
  if (unreadable > 0) {
    findings.push_back({Level::note,
                        armtools::counted(unreadable, "process") + " may not be looked at",
                        "run this as root to see whether they use libarm"});
  }
  return findings;
}

bool removesIpc(const std::string& root) {
  bool removes = true;
  for (const std::string& file : loginFiles(root)) removes = removeIpcIn(file).value_or(removes);
  return removes;
}

Findings checkLoginManager(const Picture& picture, const std::string& root) {
  if (!hasLoginManager(root)) {
    return {{Level::good, "no login manager removes shared objects here", ""}};
  }
  if (!removesIpc(root)) {
    return {{Level::good, "the login manager is told not to remove shared objects", ""}};
  }
  const uid_t owner = picture.objects.requests.exists() ? picture.objects.requests.owner : getuid();
  if (owner <= largestSystemUser(root)) {
    return {{Level::good, "the engine's user is a system user, whose objects stay", ""}};
  }
  return {{Level::warning,
           "the engine's user (" + std::to_string(owner) +
               ") is an ordinary one: the login manager removes its objects when it logs out",
           "run the engine as a system user, or set RemoveIPC=no in /etc/systemd/logind.conf"}};
}

Limits readLimits() {
  Limits limits;
  seminfo sets = {};
  TSemArgument argument = {};
  argument.buf = reinterpret_cast<semid_ds*>(&sets);
  (void)semctl(0, 0, IPC_INFO, argument);
  limits.sets = static_cast<unsigned long>(sets.semmni);
  limits.semaphores = static_cast<unsigned long>(sets.semmns);
  limits.set_size = static_cast<unsigned long>(sets.semmsl);
  (void)semctl(0, 0, SEM_INFO, argument);
  limits.sets_used = static_cast<unsigned long>(sets.semusz);
  limits.semaphores_used = static_cast<unsigned long>(sets.semaem);
  shminfo segments = {};
  (void)shmctl(0, IPC_INFO, reinterpret_cast<shmid_ds*>(&segments));
  limits.segments = segments.shmmni;
  limits.segment_size = segments.shmmax;
  limits.pages = segments.shmall;
  shm_info used = {};
  (void)shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&used));
  limits.segments_used = static_cast<unsigned long>(used.used_ids);
  limits.pages_used = used.shm_tot;
  limits.page_size = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  return limits;
}

Findings checkLimits(const Limits& limits, bool needed) {
  const Need need = usualNeed();
  const unsigned long pages = need.bytes / limits.page_size + need.segments;
  const struct {
    const char* sysctl;
    unsigned long has;
    unsigned long needs;
  } checks[] = {
      {"the semaphores of one set (kernel.sem, 1st number)", limits.set_size, need.set_size},
      {"all semaphores (kernel.sem, 2nd number)", left(limits.semaphores, limits.semaphores_used),
       need.semaphores},
      {"semaphore sets (kernel.sem, 4th number)", left(limits.sets, limits.sets_used), need.sets},
      {"segments (kernel.shmmni)", left(limits.segments, limits.segments_used), need.segments},
      {"the bytes of one segment (kernel.shmmax)", limits.segment_size, need.segment_size},
      {"the pages of all segments (kernel.shmall)", left(limits.pages, limits.pages_used), pages}};
  Findings findings;
  for (const auto& check : checks) {
    if (check.has >= check.needs) continue;
    findings.push_back({needed ? Level::problem : Level::note,
                        std::string("the kernel's limit for ") + check.sysctl + " leaves " +
                            std::to_string(check.has) +
                            ", another engine of the usual size needs " +
                            std::to_string(check.needs),
                        "raise it with sysctl, or start the engine with fewer --requests and "
                        "--requesters"});
  }
  if (findings.empty()) {
    findings.push_back({Level::good, "the kernel's limits leave room for another engine", ""});
  }
  return findings;
}

}  // namespace armstat
