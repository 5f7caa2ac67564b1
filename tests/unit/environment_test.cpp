#include "platform/environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "calls.h"

namespace armtest {
namespace {

/// A host that has called setenv: its list lies in memory that the C library allocated.
class Environment : public testing::Test {
 protected:
  Environment() {
    setenv("HOST_FIRST", "1", 1);
    unsetenv("SETTING");
    setenv("HOST_LAST", "2", 1);
  }

  static void expectHostsOwn() {
    EXPECT_STREQ("1", getenv("HOST_FIRST"));
    EXPECT_STREQ("2", getenv("HOST_LAST"));
  }

  static int timesInList(const char* setting) {
    int times = 0;
    for (char** entry = environ; *entry != nullptr; ++entry)
      times += std::strcmp(*entry, setting) == 0;
    return times;
  }

  char setting_[16] = "SETTING=value";
};

TEST_F(Environment, NewNameIsAdded) {
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_EQ(setting_ + std::strlen("SETTING="), getenv("SETTING"));
  EXPECT_EQ(1, timesInList("SETTING=value"));
  expectHostsOwn();
}

TEST_F(Environment, ListThatOthersReadStaysWhenANameIsAdded) {
  char** const before = environ;
  std::vector<std::string> entries;
  for (char** entry = before; *entry != nullptr; ++entry) entries.emplace_back(*entry);
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_NE(before, environ);
  // Who gets freed memory writes over it.
  std::vector<void*> others;
  const size_t size = (entries.size() + 1) * sizeof(char*);
  for (int i = 0; i < 1000; ++i) {
    others.push_back(malloc(size));
    std::memset(others.back(), 'x', size);
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    ASSERT_NE(nullptr, before[i]);
    EXPECT_EQ(entries[i], before[i]);
  }
  EXPECT_EQ(nullptr, before[entries.size()]);
  for (void* other : others) free(other);
}

TEST_F(Environment, ValueIsReplacedInPlace) {
  setenv("SETTING", "another", 1);
  char** const before = environ;
  calls::malloc.watch();
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_EQ(0, calls::malloc.count());
  EXPECT_EQ(before, environ);
  EXPECT_STREQ("value", getenv("SETTING"));
  EXPECT_EQ(1, timesInList("SETTING=value"));
  expectHostsOwn();
}

TEST_F(Environment, LongerNameWithTheSameBeginningIsAnother) {
  setenv("SETTINGS", "another", 1);
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_STREQ("value", getenv("SETTING"));
  EXPECT_STREQ("another", getenv("SETTINGS"));
}

TEST_F(Environment, ThatWasClearedGetsTheOneEntry) {
  ASSERT_EQ(0, clearenv());
  ASSERT_EQ(nullptr, environ);
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_STREQ("value", getenv("SETTING"));
  EXPECT_EQ(nullptr, environ[1]);
}

TEST_F(Environment, HostGoesOnChangingIt) {
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_EQ(0, setenv("HOST_MORE", "3", 1));
  EXPECT_EQ(0, setenv("HOST_FIRST", "4", 1));
  EXPECT_EQ(0, unsetenv("HOST_LAST"));
  EXPECT_STREQ("3", getenv("HOST_MORE"));
  EXPECT_STREQ("4", getenv("HOST_FIRST"));
  EXPECT_EQ(nullptr, getenv("HOST_LAST"));
  EXPECT_STREQ("value", getenv("SETTING"));
}

TEST_F(Environment, WithoutMemoryStaysAsItWas) {
  char** const before = environ;
  calls::malloc.fail(nullptr, ENOMEM, 0, 1);
  EXPECT_FALSE(putIntoEnvironment(setting_));
  EXPECT_EQ(before, environ);
  EXPECT_EQ(nullptr, getenv("SETTING"));
}

TEST_F(Environment, ThatIsRefusedStaysAsItWas) {
  char** const before = environ;
  calls::putenv.fail(-1, ENOMEM);
  EXPECT_FALSE(putIntoEnvironment(setting_));
  EXPECT_EQ(before, environ);
  EXPECT_EQ(nullptr, getenv("SETTING"));
}

// ---- a host that changes it meanwhile -----------------------------------------------------------

TEST_F(Environment, NameThatTheHostAddsBeforeTheListIsPublishedIsKept) {
  int round = 0;
  calls::malloc.replace([&](size_t size) {
    if (round++ == 0) setenv("HOST_MEANWHILE", "3", 1);
    return calls::malloc.real(size);
  });
  EXPECT_TRUE(putIntoEnvironment(setting_));
  calls::malloc.watch();
  EXPECT_STREQ("3", getenv("HOST_MEANWHILE"));
  EXPECT_EQ(1, timesInList("SETTING=value"));
  expectHostsOwn();
}

TEST_F(Environment, ValueThatTheHostIsReplacingWhileTheListIsPublishedIsKept) {
  char** const before = environ;
  char replaced[] = "HOST_LAST=3";
  int round = 0;
  calls::putenv.replace([&](char* text) {
    // What a setenv does that has found its entry before.
    if (round++ == 0) {
      for (char** entry = before; *entry != nullptr; ++entry) {
        if (std::strcmp(*entry, "HOST_LAST=2") == 0) *entry = replaced;
      }
    }
    return calls::putenv.real(text);
  });
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_STREQ("3", getenv("HOST_LAST"));
  EXPECT_STREQ("1", getenv("HOST_FIRST"));
  EXPECT_EQ(1, timesInList("SETTING=value"));
}

TEST_F(Environment, ListThatTheHostPublishesAtLastIsTheOneThatCounts) {
  char first[] = "HOST_FIRST=1";
  char last[] = "HOST_LAST=2";
  char* hosts[] = {first, last, nullptr};
  int round = 0;
  calls::putenv.replace([&](char* text) {
    if (round++ == 0) environ = hosts;
    return calls::putenv.real(text);
  });
  EXPECT_TRUE(putIntoEnvironment(setting_));
  EXPECT_STREQ("value", getenv("SETTING"));
  expectHostsOwn();
}

TEST_F(Environment, HostThatChangesItAllTheTimeDoesNotKeepItAway) {
  int round = 0;
  calls::malloc.replace([&](size_t size) {
    setenv(("HOST_MORE" + std::to_string(round++)).c_str(), "3", 1);
    return calls::malloc.real(size);
  });
  EXPECT_TRUE(putIntoEnvironment(setting_));
  calls::malloc.watch();
  EXPECT_GT(50, round);
  for (int i = 0; i < round; ++i) {
    EXPECT_STREQ("3", getenv(("HOST_MORE" + std::to_string(i)).c_str())) << i;
  }
  EXPECT_STREQ("value", getenv("SETTING"));
}

}  // namespace
}  // namespace armtest
