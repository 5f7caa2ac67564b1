// Hosts with fork handlers of their own, registered before the library's and after them: the
// handlers may make every call, and may wait for a thread that does.

#include <cstdlib>
#include <string>

#include "CallTest.h"
#include "counted.h"

namespace armtest {
namespace {

constexpr int FORKS = 10;
constexpr const char* HANDLER_HOSTS[] = {"fork_handlers_linked", "fork_handlers_opened"};

class ForkHandlers : public testing::Test {
 protected:
  void SetUp() override {
    EngineSetup setup;
    setup.requests = 256;
    setup.requesters = 256;
    ASSERT_TRUE(engine_.start(setup));
    engine_.derive();
  }

  void expectRightAnswers(const std::string& place, int forks = FORKS) {
    for (const char* host : HANDLER_HOSTS) {
      for (const char* tracing : {"", "1"}) {
        *tracing != '\0' ? setenv("ARMDEBUG", tracing, 1) : unsetenv("ARMDEBUG");
        EXPECT_EQ(0, run(host, place, forks)) << host << " " << place << " " << tracing;
        (void)engine_.reclaim();
      }
    }
    counted("fork handlers of a host: " + place, 4U * static_cast<unsigned>(forks));
  }

 private:
  static int run(const char* host, const std::string& place, int forks) {
    const std::string program = std::string(ARM_BUILD_DIR "/bin/") + host;
    return exitCodeOf(forkChild([&] {
      execl(program.c_str(), program.c_str(), place.c_str(), std::to_string(forks).c_str(),
            nullptr);
      return 127;
    }));
  }

  ScriptedEngine engine_;
};

TEST_F(ForkHandlers, BeforeAForkMakeEveryCall) {
  expectRightAnswers("prepare");
}

TEST_F(ForkHandlers, OfTheParentMakeEveryCall) {
  expectRightAnswers("parent");
}

TEST_F(ForkHandlers, OfTheChildMakeEveryCall) {
  expectRightAnswers("child");
}

TEST_F(ForkHandlers, MakeTheFirstCallsOfTheirProcess) {
  for (const char* place : {"first-prepare", "first-parent", "first-child"}) {
    expectRightAnswers(place, 1);
  }
}

TEST_F(ForkHandlers, WaitForAThreadThatMakesEveryCall) {
  expectRightAnswers("mutex");
}

TEST_F(ForkHandlers, WaitForAThreadThatMakesTheFirstCallsOfItsProcess) {
  expectRightAnswers("first-mutex", 1);
}

}  // namespace
}  // namespace armtest
