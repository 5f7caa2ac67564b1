// Checks of one engine: its name files, its objects, its process.

#include <dirent.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "armstat/Doctor.h"
#include "armstat/Processes.h"
#include "common/Words.h"
#include "ipc/EngineObjects.h"
#include "system/Limits.h"
#include "system/NameFiles.h"

namespace armstat {

namespace {

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

std::string startAdvice() {
  const auto prefix = prefixInForce();
  return prefix ? "start it: armengine --prefix " + quoted(*prefix) : "start it: armengine";
}

bool isMissing(const std::string& path) {
  return access(path.c_str(), F_OK) != 0;
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

std::vector<std::string> filesInDirectory() {
  std::vector<std::string> names;
  DIR* directory = opendir(NAME_DIRECTORY);
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
  (void)closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

/// The request segment's name file of a prefix.
std::string requestFileOf(const std::optional<std::string>& prefix) {
  return std::string(REQUEST_SEGMENT_NAME) + (prefix ? "." + *prefix : "");
}

/// How the programs that look elsewhere can be given an engine.
Findings checkOtherPrefixes(const Picture& picture) {
  Findings findings;
  for (const auto& other : prefixesInDirectory()) {
    if (other == picture.prefix) continue;
    const int process = armengine::liveEngine(requestFileOf(other));
    if (process == 0) continue;
    const std::string whose = other ? "with the prefix " + quoted(*other) : "without a prefix";
    Finding one = {Level::note,
                   "another engine serves " + whose + " (process " + std::to_string(process) + ")",
                   ""};
    if (picture.engine.state != EngineState::serving) {
      one.level = Level::warning;
      one.advice = other ? "if that is the one meant: set ARM_AGENT_PREFIX=" + *other +
                               " in the programs' environment, and use --prefix here"
                         : "if that is the one meant: unset ARM_AGENT_PREFIX in the programs' "
                           "environment and here";
    }
    findings.push_back(one);
  }
  return findings;
}

Finding checkNameFiles(const Picture& picture) {
  std::vector<std::string> missing;
  for (const std::string& path : namePaths()) {
    if (isMissing(path)) missing.push_back(path);
  }
  if (missing.empty()) return {Level::good, "all four name files are there", ""};
  if (missing.size() == namePaths().size()) {
    return {Level::problem, "no engine has made name files " + prefixInWords(), startAdvice()};
  }
  const std::string advice = picture.objects.any()
                                 ? "somebody has deleted them: stop the engine and start it again"
                                 : startAdvice();
  return {Level::problem, "name files are missing: " + joined(missing), advice};
}

Finding checkDirectory() {
  struct stat status = {};
  const std::string directory = NAME_DIRECTORY;
  if (stat(NAME_DIRECTORY, &status) != 0) {
    return {Level::problem,
            "the directory " + directory + " cannot be reached (" + std::strerror(errno) + ")",
            errno == ENOENT ? "start an engine as root, or make it and give it to the engine's user"
                            : "give programs the right to search it: chmod a+x " + directory};
  }
  if ((status.st_mode & S_IXOTH) == 0) {
    return {Level::warning, "the directory " + directory + " is closed to other users",
            "let their programs find the name files: chmod a+x " + directory};
  }
  return {Level::good, "the directory " + directory + " is open to all users", ""};
}

Finding engineIs(Level level, const Picture& picture, const char* what, std::string advice) {
  return {level,
          "the engine " + prefixInWords() + " (process " +
              (picture.engine.process > 0 ? std::to_string(picture.engine.process)
                                          : std::string("not known")) +
              ") " + what,
          std::move(advice)};
}

/// Whether one and the same process holds a lock for a tenth of a second.
pid_t holderOf(const SemaphoreSet& lock) {
  constexpr unsigned LOOKS = 20;
  constexpr timespec PAUSE = {0, 5000000};
  pid_t holder = 0;
  for (unsigned i = 0; i < LOOKS; ++i) {
    const Objects objects = findObjects();
    const SemaphoreSet& now =
        lock.id == objects.request_lock.id ? objects.request_lock : objects.reply_lock;
    const pid_t process = now.lastProcess(LOCK_SET_LOCK);
    if (now.id != lock.id || now.value(LOCK_SET_LOCK).value_or(0) == 0) return 0;
    if (i > 0 && process != holder) return 0;
    holder = process;
    (void)nanosleep(&PAUSE, nullptr);
  }
  return holder;
}

Findings checkLocks(const Picture& picture) {
  Findings findings;
  for (const SemaphoreSet* lock : {&picture.objects.request_lock, &picture.objects.reply_lock}) {
    if (lock->value(LOCK_SET_LOCK).value_or(0) == 0) continue;
    const pid_t process = holderOf(*lock);
    if (process == 0) continue;
    std::string text = "the " + lock->what + " is held by process " + std::to_string(process);
    const std::string name = processName(process);
    if (!name.empty()) text += " (" + name + ")";
    if (processState(process) == 'T' || processState(process) == 't') text += ", which is stopped";
    findings.push_back({Level::problem, text + ", all the time: every call waits",
                        "let that process go on (kill -CONT " + std::to_string(process) +
                            "), or end it: the lock falls back then"});
  }
  return findings;
}

Findings checkRoom(const Picture& picture) {
  Findings findings;
  const RequestQueue& requests = picture.requests;
  if (requests.capacity > 0 && requests.header.count >= requests.capacity) {
    findings.push_back({Level::warning, "the request queue is full: programs lose measurements",
                        "is the engine busy or stopped? else start it with more --requests"});
  }
  const ReplyQueue& replies = picture.replies;
  if (replies.capacity > 0 && replies.header.heads_in_use >= replies.capacity) {
    findings.push_back({Level::warning,
                        "all " + std::to_string(replies.capacity) +
                            " head records are in use: "
                            "further threads may not be measured",
                        "start the engine with more --requesters"});
  }
  const auto dead = std::count_if(picture.requesters.begin(), picture.requesters.end(),
                                  [](const Requester& one) { return !one.process_lives; });
  if (dead > 0) {
    findings.push_back({Level::note,
                        armtools::counted(static_cast<unsigned long>(dead), "head record") +
                            " of processes that have ended "
                            "or are not visible from here",
                        "nothing: an engine frees them"});
  }
  return findings;
}

Findings checkAccess(const Picture& picture) {
  Findings findings;
  for (const ObjectBase* object : picture.objects.all()) {
    if (!object->exists()) continue;
    const std::string what = "the " + object->what + " (" + object->path + ")";
    if (object->error == EACCES || object->error == EPERM) {
      findings.push_back({Level::problem, what + " may not be used by this user",
                          "start the engine anew; it lets every user in"});
    } else if (object->error == 0 && (object->mode & OBJECT_ACCESS) != OBJECT_ACCESS) {
      findings.push_back({Level::warning, what + " is closed to other users' programs",
                          "start the engine anew; it lets every user in"});
    }
  }
  return findings;
}

const char* adviceFor(Oddity::Kind kind) {
  switch (kind) {
    case Oddity::Kind::damage:
      return "look again with armstat --consistent; if it stays, restart the engine";
    case Oddity::Kind::version:
      return "every program writes it anew when it connects; find out who writes something else "
             "there";
  }
  return "";
}

}  // namespace

std::vector<std::optional<std::string>> prefixesInDirectory() {
  std::vector<std::optional<std::string>> prefixes;
  const std::string path = REQUEST_SEGMENT_NAME;
  const std::string name = path.substr(path.rfind('/') + 1);
  for (const std::string& file : filesInDirectory()) {
    if (file == name) prefixes.emplace_back(std::nullopt);
    if (file.compare(0, name.size() + 1, name + ".") == 0) {
      prefixes.emplace_back(file.substr(name.size() + 1));
    }
  }
  return prefixes;
}

Findings checkNames(const Picture& picture) {
  Findings findings = {checkDirectory()};
  if (findings.front().level == Level::problem) return findings;
  findings.push_back(checkNameFiles(picture));
  const std::string prefix = picture.prefix.value_or("");
  if (prefix.size() > armengine::LONGEST_PREFIX) {
    findings.push_back(
        {Level::problem, "the prefix is so long that paths are cut",
         "use at most " + std::to_string(armengine::LONGEST_PREFIX) + " characters"});
  }
  if (picture.prefix && prefix.empty()) {
    findings.push_back({Level::note, "ARM_AGENT_PREFIX is set but empty: every path ends in a dot",
                        "unset it unless the engine is started so too"});
  }
  const Findings others = checkOtherPrefixes(picture);
  findings.insert(findings.end(), others.begin(), others.end());
  return findings;
}

Findings checkKeys(const Picture& picture) {
  Findings findings;
  std::map<key_t, std::string> known;
  for (const std::string& file : filesInDirectory()) {
    if (file.compare(0, 9, "controls_") != 0) continue;
    const std::string path = std::string(NAME_DIRECTORY) + "/" + file;
    const key_t key = ftok(path.c_str(), SET_PROJECT);
    if (key == -1) continue;
    const auto [place, is_new] = known.emplace(key, path);
    if (is_new) continue;
    findings.push_back({Level::problem,
                        place->second + " and " + path +
                            " give the same keys (ftok keeps 16 bits "
                            "of a file's number)",
                        "stop both engines, delete one of the files, start them again"});
  }
  for (const SemaphoreSet* set : picture.objects.sets()) {
    if (!set->exists() || set->error != 0 || set->fits()) continue;
    findings.push_back({Level::problem,
                        "the key of the " + set->what + " (" + set->path +
                            ") belongs to a set of another program, with " +
                            std::to_string(set->count) + " semaphores",
                        "stop the engine, delete the name file and start it again: the new file "
                        "gets another key"});
  }
  if (findings.empty()) findings.push_back({Level::good, "no two name files give one key", ""});
  return findings;
}

Findings checkEngine(const Picture& picture) {
  const pid_t process = picture.engine.process;
  switch (picture.engine.state) {
    case EngineState::none:
      // Without name files that has been said.
      if (isMissing(namePaths().front())) return {};
      return {{Level::problem, "no engine runs " + prefixInWords(), startAdvice()}};
    case EngineState::starting:
      return {engineIs(Level::problem, picture, "has not finished starting",
                       "look again; if it stays so: stop it, armstat clean, and start it again")};
    case EngineState::stopped:
      return {engineIs(Level::problem, picture, "has stopped its queues",
                       "wait for its end, then start it again")};
    case EngineState::dead:
      return {engineIs(Level::problem, picture, "has died and left its objects",
                       startAdvice() + " (it replaces them), or remove them: armstat clean")};
    case EngineState::unknown:
      return {engineIs(Level::problem, picture, "cannot be looked at", "run this as root")};
    case EngineState::serving:
      break;
  }
  if (processState(process) == 'T' || processState(process) == 't') {
    return {engineIs(Level::problem, picture, "is stopped: every call waits",
                     "let it go on: kill -CONT " + std::to_string(process))};
  }
  return {engineIs(Level::good, picture, "serves", "")};
}

Findings checkQueues(const Picture& picture) {
  Findings findings;
  for (const Oddity& oddity : picture.oddities) {
    findings.push_back({Level::warning, oddity.text, adviceFor(oddity.kind)});
  }
  for (const ObjectBase* object : picture.objects.all()) {
    if (!picture.objects.any() || object->exists() || !object->has_name) continue;
    findings.push_back({Level::problem, "the " + object->what + " (" + object->path + ") is gone",
                        "somebody has removed it: stop the engine and start it again"});
  }
  for (const auto& some : {checkAccess(picture), checkLocks(picture), checkRoom(picture)}) {
    findings.insert(findings.end(), some.begin(), some.end());
  }
  if (findings.empty() && picture.objects.any()) {
    findings.push_back({Level::good, "the queues are sound, open to all users, and have room", ""});
  }
  return findings;
}

}  // namespace armstat
