#include "armstat/Processes.h"

#include <dirent.h>
#include <elf.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "armstat/Objects.h"
#include "ipc/EngineObjects.h"
#include "system/NameFiles.h"
#include "system/ProcessStat.h"

namespace armstat {

namespace {

std::string inProc(pid_t process, const std::string& entry) {
  return "/proc/" + std::to_string(process) + "/" + entry;
}

/// The content of a file, none when it may not be read.
std::optional<std::string> contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream content;
  content << file.rdbuf();
  return file.bad() ? std::nullopt : std::optional<std::string>(content.str());
}

std::string linkOf(const std::string& path) {
  char target[256];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

/// The width of a process's program in bits, 0 when it is not known.
int widthOf(pid_t process) {
  char ident[EI_NIDENT] = {};
  std::ifstream(inProc(process, "exe"), std::ios::binary).read(ident, sizeof ident);
  if (ident[EI_CLASS] == ELFCLASS32) return 32;
  return ident[EI_CLASS] == ELFCLASS64 ? 64 : 0;
}

bool hasLoadedLibrary(const std::string& maps) {
  return maps.find("/libarm.so") != std::string::npos;
}

User describe(pid_t process, const std::string& own_namespace) {
  User user;
  user.process = process;
  user.name = processName(process);
  const std::string space = linkOf(inProc(process, "ns/ipc"));
  user.other_ipc = !space.empty() && space != own_namespace;
  const std::string file = NAME_DIRECTORY;
  const key_t own = ftok(file.c_str(), SET_PROJECT);
  const key_t other = ftok(inProc(process, "root" + file).c_str(), SET_PROJECT);
  if (own != -1 && other != -1) user.same_key = own == other;
  const auto environment = contentOf(inProc(process, "environ"));
  user.prefix_known = environment.has_value();
  std::istringstream entries(environment.value_or(""));
  const std::string variable = "ARM_AGENT_PREFIX=";
  for (std::string entry; std::getline(entries, entry, '\0');) {
    if (entry.compare(0, variable.size(), variable) == 0) {
      user.prefix = entry.substr(variable.size());
    }
  }
  return user;
}

}  // namespace

bool processLives(pid_t process) {
  if (!armengine::processExists(process)) return false;
  const auto stat = armengine::processStat(process);
  return !stat || !stat->ended;
}

std::string processName(pid_t process) {
  std::string name = contentOf(inProc(process, "comm")).value_or("");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return name;
}

char processState(pid_t process) {
  const auto stat = armengine::processStat(process);
  return stat ? stat->state : '?';
}

std::optional<bool> threadLives(pid_t process, uint32_t thread) {
  if (widthOf(process) != 64) return std::nullopt;
  return access(inProc(process, "task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}

std::vector<User> usersOfLibrary(unsigned* unreadable) {
  std::vector<User> users;
  *unreadable = 0;
  DIR* directory = opendir("/proc");
  if (directory == nullptr) return users;
  const std::string own_namespace = linkOf("/proc/self/ns/ipc");
  while (const dirent* entry = readdir(directory)) {
    if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) continue;
    const auto process = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    const auto maps = contentOf(inProc(process, "maps"));
    if (!maps && processLives(process)) ++*unreadable;
    if (maps && hasLoadedLibrary(*maps)) users.push_back(describe(process, own_namespace));
  }
  (void)closedir(directory);
  return users;
}

}  // namespace armstat
