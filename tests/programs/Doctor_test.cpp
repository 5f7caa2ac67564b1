#include "armstat/Doctor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <optional>
#include <string>

namespace {

using armstat::Level;
using armstat::Limits;

/// The limits of an ordinary machine.
Limits ordinary() {
  Limits limits;
  limits.sets = 32000;
  limits.semaphores = 1024000000;
  limits.set_size = 32000;
  limits.segments = 4096;
  limits.segment_size = 1UL << 40;
  limits.pages = 1UL << 30;
  limits.page_size = 4096;
  return limits;
}

Level levelFor(const Limits& limits, bool needed = true) {
  const armstat::Findings findings = armstat::checkLimits(limits, needed);
  EXPECT_EQ(1U, findings.size());
  return findings.front().level;
}

TEST(Doctor, OrdinaryLimitsAreGood) {
  EXPECT_EQ(Level::good, levelFor(ordinary()));
  EXPECT_FALSE(armstat::checkLimits(armstat::readLimits(), true).empty());
}

// An engine of the usual size: 1024 slots of 4116 bytes, 1024 requesters of 548.
TEST(Doctor, EachLimitIsCheckedAgainstWhatAnEngineNeeds) {
  const auto with = [](unsigned long Limits::*limit, unsigned long value) {
    Limits limits = ordinary();
    limits.*limit = value;
    return levelFor(limits);
  };
  EXPECT_EQ(Level::good, with(&Limits::set_size, 1026));
  EXPECT_EQ(Level::problem, with(&Limits::set_size, 1025));
  EXPECT_EQ(Level::good, with(&Limits::semaphores, 1036));
  EXPECT_EQ(Level::problem, with(&Limits::semaphores, 1035));
  EXPECT_EQ(Level::good, with(&Limits::sets, 5));
  EXPECT_EQ(Level::problem, with(&Limits::sets, 4));
  EXPECT_EQ(Level::good, with(&Limits::segments, 2));
  EXPECT_EQ(Level::problem, with(&Limits::segments, 1));
  EXPECT_EQ(Level::good, with(&Limits::segment_size, 28 + 1024 * 4116));
  EXPECT_EQ(Level::problem, with(&Limits::segment_size, 27 + 1024 * 4116));
  EXPECT_EQ(Level::problem, with(&Limits::pages, 1000));
}

TEST(Doctor, WhatIsUsedLeavesLess) {
  Limits limits = ordinary();
  limits.sets_used = limits.sets - 4;
  EXPECT_EQ(Level::problem, levelFor(limits));
  EXPECT_EQ(Level::note, levelFor(limits, false));
  limits.sets_used = limits.sets + 10;
  EXPECT_EQ(Level::problem, levelFor(limits));
}

// ---- users of the library -----------------------------------------------------------------------

armstat::User user() {
  armstat::User one;
  one.process = 4711;
  one.name = "shop";
  one.same_key = true;
  one.prefix_known = true;
  return one;
}

armstat::Finding findingFor(const armstat::User& one, std::optional<std::string> prefix = {}) {
  armstat::Picture picture;
  picture.prefix = std::move(prefix);
  const armstat::Findings findings = armstat::checkUsers({one}, 0, picture);
  EXPECT_EQ(1U, findings.size());
  return findings.front();
}

TEST(Doctor, UserOfTheSameEngineIsGood) {
  EXPECT_EQ(Level::good, findingFor(user()).level);
  armstat::User one = user();
  one.prefix = "blue";
  EXPECT_EQ(Level::good, findingFor(one, "blue").level);
  EXPECT_EQ(Level::note, findingFor(one).level);
  EXPECT_EQ(Level::note, findingFor(one, "").level);
  one.prefix_known = false;
  EXPECT_EQ(Level::good, findingFor(one).level);
}

TEST(Doctor, UserInAnotherContainerIsAProblem) {
  armstat::User one = user();
  one.same_key = false;
  EXPECT_EQ("process 4711 (shop) sees another /var/kelp and so makes other keys",
            findingFor(one).text);
  EXPECT_EQ(Level::problem, findingFor(one).level);
  one.other_ipc = true;
  EXPECT_EQ("process 4711 (shop) lives in another IPC namespace (a container?)",
            findingFor(one).text);
  EXPECT_EQ(Level::problem, findingFor(one).level);
}

TEST(Doctor, ProcessesThatMayNotBeLookedAtAreNoted) {
  const armstat::Findings findings = armstat::checkUsers({}, 2, armstat::Picture());
  ASSERT_EQ(2U, findings.size());
  EXPECT_EQ("2 processes may not be looked at", findings[1].text);
}

// ---- what cannot be -----------------------------------------------------------------------------

TEST(Doctor, AdviceOnWhatIsOddGoesByItsKindWhateverItsSentenceSays) {
  using Kind = armstat::Oddity::Kind;
  armstat::Picture picture;
  picture.oddities = {{Kind::version, "something else stands there"},
                      {Kind::damage, "the list at the version word is damaged"}};
  const armstat::Findings findings = armstat::checkQueues(picture);
  ASSERT_EQ(2U, findings.size());
  EXPECT_EQ(Level::warning, findings[0].level);
  EXPECT_EQ("something else stands there", findings[0].text);
  EXPECT_EQ(
      "every program writes it anew when it connects; find out who writes something else there",
      findings[0].advice);
  EXPECT_EQ(Level::warning, findings[1].level);
  EXPECT_EQ("look again with armstat --consistent; if it stays, restart the engine",
            findings[1].advice);
}

// ---- the login manager --------------------------------------------------------------------------

class LoginManager : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* directory : {"", "/run", "/run/systemd", "/run/systemd/system", "/etc",
                                  "/etc/systemd", "/etc/systemd/logind.conf.d", "/usr", "/usr/lib",
                                  "/usr/lib/systemd", "/usr/lib/systemd/logind.conf.d"}) {
      ASSERT_EQ(0, mkdir((ROOT + directory).c_str(), 0755)) << directory;
    }
  }
  static void write(const std::string& path, const std::string& text) {
    std::ofstream(ROOT + path) << text;
  }
  static Level levelFor(uid_t owner) {
    armstat::Picture picture;
    picture.objects.requests.id = 1;
    picture.objects.requests.owner = owner;
    return armstat::checkLoginManager(picture, ROOT).front().level;
  }

  static inline const std::string ROOT = "/tmp/root";
};

TEST_F(LoginManager, RemovesTheObjectsOfOrdinaryUsersUnlessToldOtherwise) {
  EXPECT_TRUE(armstat::removesIpc(ROOT));
  EXPECT_EQ(Level::warning, levelFor(1000));
  EXPECT_EQ(Level::good, levelFor(999));
  EXPECT_EQ(Level::good, levelFor(0));
  write("/etc/login.defs", "# comment\nSYS_UID_MAX\t\t  499\n");
  EXPECT_EQ(Level::warning, levelFor(500));
  EXPECT_EQ(Level::good, levelFor(499));
}

TEST_F(LoginManager, MachineWithoutOneRemovesNothing) {
  ASSERT_EQ(0, rmdir((ROOT + "/run/systemd/system").c_str()));
  EXPECT_EQ(Level::good, levelFor(1000));
}

TEST_F(LoginManager, LastSettingHolds) {
  write("/etc/systemd/logind.conf", "[Login]\n#RemoveIPC=no\n");
  EXPECT_TRUE(armstat::removesIpc(ROOT));
  write("/etc/systemd/logind.conf", "[Login]\n RemoveIPC = No\n");
  EXPECT_FALSE(armstat::removesIpc(ROOT));
  EXPECT_EQ(Level::good, levelFor(1000));
  write("/usr/lib/systemd/logind.conf.d/50-vendor.conf", "[Login]\nRemoveIPC=yes\n");
  EXPECT_TRUE(armstat::removesIpc(ROOT));
  write("/etc/systemd/logind.conf.d/60-site.conf", "[Login]\nRemoveIPC=off\n");
  EXPECT_FALSE(armstat::removesIpc(ROOT));
}

TEST_F(LoginManager, FileOfTheAdministratorHidesTheVendorsOfTheSameName) {
  write("/usr/lib/systemd/logind.conf.d/50.conf", "[Login]\nRemoveIPC=no\n");
  EXPECT_FALSE(armstat::removesIpc(ROOT));
  write("/etc/systemd/logind.conf.d/50.conf", "");
  EXPECT_TRUE(armstat::removesIpc(ROOT));
}

}  // namespace
