// The instructions that arm_start runs in user space, counted by a simulated processor and compared
// with those of a bare client that makes the same system calls.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "CountingEngine.h"
#include "process.h"

namespace armtest {

namespace {

constexpr int CALLS = 50;

struct Profile {
  long instructions = 0;
  std::string text;
};

class Instructions : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(engine_.isReady()); }

  /// What the counter has seen of CALLS calls.
  static Profile count(const std::string& name) {
    const std::string client = std::string(ARM_BUILD_DIR) + "/bin/counts_client";
    const std::string path = "/tmp/counts." + name;
    // The C library's copies must not become one counted instruction per byte.
    (void)setenv("GLIBC_TUNABLES",
                 "glibc.cpu.x86_rep_movsb_threshold=0x40000000:"
                 "glibc.cpu.x86_rep_stosb_threshold=0x40000000",
                 1);
    const pid_t counter = forkChild([&] {
      execlp("valgrind", "valgrind", "--quiet", "--tool=callgrind", "--toggle-collect=countedCalls",
             ("--callgrind-out-file=" + path).c_str(), client.c_str(), "instructions", name.c_str(),
             std::to_string(CALLS).c_str(), nullptr);
      return 127;
    });
    EXPECT_EQ(0, exitCodeOf(counter)) << "valgrind and " << client;
    return read(path);
  }

 private:
  static Profile read(const std::string& path) {
    static const std::regex TOTAL(R"(^(?:totals|summary): (\d+).*)");
    Profile profile;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      std::smatch parts;
      if (std::regex_match(line, parts, TOTAL)) profile.instructions = std::stol(parts[1]);
      profile.text += line + "\n";
    }
    EXPECT_GT(profile.instructions, 0) << path;
    return profile;
  }

  CountingEngine engine_{CountingEngine::Ring::empty};
};

TEST_F(Instructions, AreAtMostTwiceThoseOfABareClient) {
  const long library = count("arm").instructions;
  const long bare = count("floor").instructions;
  std::printf("instructions per call: library %ld, bare client %ld\n", library / CALLS,
              bare / CALLS);
  EXPECT_LE(library, 2 * bare);
}

TEST_F(Instructions, NoneAllocateOrFormat) {
  const Profile profile = count("arm");
  // That the profile names functions at all shows in one that must be there.
  EXPECT_TRUE(std::regex_search(profile.text, std::regex(R"(fn=\(\d+\) semop)")));
  EXPECT_FALSE(std::regex_search(
      profile.text,
      std::regex(R"(fn=\(\d+\) (malloc|calloc|realloc|free|operator new|\w*printf))")));
}

}  // namespace

}  // namespace armtest
