// Loading and unloading the library, without a call, leaves no mark on the process.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

extern char** environ;

namespace {

constexpr const char* LIBRARY = ARM_BUILD_DIR "/lib/libarm.so";

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::set<std::string> entriesOf(const char* directory) {
  std::set<std::string> entries;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    entries.insert(entry.path().filename());
  }
  return entries;
}

/// Without the project itself, which may lie there and changes under other tests.
std::set<std::string> filesBelow(const char* directory) {
  std::set<std::string> files;
  std::filesystem::recursive_directory_iterator entry(
      directory, std::filesystem::directory_options::skip_permission_denied);
  for (; entry != std::filesystem::recursive_directory_iterator(); ++entry) {
    files.insert(entry->path());
    if (entry->path() == ARM_SOURCE_DIR) entry.disable_recursion_pending();
  }
  return files;
}

std::set<std::string> environment() {
  std::set<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) variables.insert(*variable);
  return variables;
}

std::map<int, std::string> signalHandlers() {
  std::map<int, std::string> handlers;
  for (int number = 1; number < SIGRTMIN; ++number) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    void* handler = nullptr;
    std::memcpy(&handler, &action.sa_handler, sizeof handler);
    handlers[number] = std::to_string(reinterpret_cast<uintptr_t>(handler));
  }
  return handlers;
}

/// Standard output and standard error go into a file meanwhile.
class CapturedOutput {
 public:
  CapturedOutput() : file_(open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600)) {
    EXPECT_LE(0, file_);
    fflush(nullptr);
    for (int i = 0; i < 2; ++i) {
      saved_[i] = fcntl(i + 1, F_DUPFD_CLOEXEC, 100);
      dup2(file_, i + 1);
    }
  }
  /// Ends the capture; the bytes that were written.
  off_t end() {
    fflush(nullptr);
    for (int i = 0; i < 2; ++i) {
      dup2(saved_[i], i + 1);
      close(saved_[i]);
    }
    const off_t written = lseek(file_, 0, SEEK_END);
    close(file_);
    return written;
  }

 private:
  int file_;
  int saved_[2];
};

class Load : public testing::Test {
 protected:
  static void loadAndUnload() {
    void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    EXPECT_NE(nullptr, dlsym(library, "arm_init"));
    EXPECT_EQ(0, dlclose(library));
  }

  /// What a look at the process gives must be the same before and after.
  template <typename Look>
  static void expectUnchanged(Look look) {
    const auto before = look();
    loadAndUnload();
    EXPECT_EQ(before, look());
  }
};

TEST_F(Load, StartsNoThread) {
  expectUnchanged([] { return entriesOf("/proc/self/task"); });
}

TEST_F(Load, LeavesNoDescriptorOpen) {
  expectUnchanged([] { return entriesOf("/proc/self/fd").size(); });
}

TEST_F(Load, MakesNoFile) {
  expectUnchanged([] {
    std::set<std::string> files = filesBelow("/var");
    files.merge(filesBelow("/tmp"));
    files.merge(filesBelow("/etc/orv"));
    return files;
  });
}

TEST_F(Load, MakesNoIpcObject) {
  expectUnchanged([] {
    return contentOf("/proc/sysvipc/shm") + contentOf("/proc/sysvipc/sem") +
           contentOf("/proc/sysvipc/msg");
  });
}

TEST_F(Load, LeavesTheEnvironmentAlone) {
  expectUnchanged(environment);
}

TEST_F(Load, LeavesSignalsAlone) {
  expectUnchanged(signalHandlers);
}

TEST_F(Load, LeavesTheLocaleAlone) {
  expectUnchanged([] { return std::string(setlocale(LC_ALL, nullptr)); });
}

TEST_F(Load, PrintsNothing) {
  CapturedOutput output;
  loadAndUnload();
  EXPECT_EQ(0, output.end());
}

TEST_F(Load, WithTracingAskedForStillWritesNothing) {
  setenv("ARMDEBUG", "1", 1);
  expectUnchanged([] { return filesBelow("/var"); });
}

TEST_F(Load, MayBeRepeated) {
  for (int i = 0; i < 20; ++i) loadAndUnload();
  void* library = dlopen(LIBRARY, RTLD_NOW);
  ASSERT_NE(nullptr, library);
  using Key = const char* (*)();
  const Key key = reinterpret_cast<Key>(dlsym(library, "arm_getCorrelatorKey"));
  EXPECT_STREQ("ARM_CORRELATOR", key());
  EXPECT_EQ(0, dlclose(library));
}

}  // namespace
