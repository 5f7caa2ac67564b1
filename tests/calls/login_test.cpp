// The user "*" of arm_init: the login name of the process's real user.

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "CallTest.h"

namespace armtest {
namespace {

/// With an /etc/passwd whose only entry is the test's own.
class LoginName : public CallsWithEngine {
 protected:
  /// Without a login name the file has an entry of another user only.
  static void writePasswd(const char* login) {
    // Only the file: other sources know some users by themselves.
    FILE* sources = fopen("/etc/nsswitch.conf", "w");
    ASSERT_NE(nullptr, sources);
    fputs("passwd: files\n", sources);
    fclose(sources);
    FILE* file = fopen("/etc/passwd", "w");
    ASSERT_NE(nullptr, file);
    const unsigned user = getuid();
    if (login != nullptr) {
      fprintf(file, "%s:x:%u:%u::/:/bin/sh\n", login, user, user);
    } else {
      fprintf(file, "other:x:%u:%u::/:/bin/sh\n", user + 1, user + 1);
    }
    fclose(file);
  }

  std::string sentUser() const { return textAt(engine_.last(), 140, 128); }
};

TEST_F(LoginName, ReplacesTheUserStar) {
  writePasswd("tester");
  EXPECT_EQ(101, arm_init("a", "*", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "a");
  putText(expected, 140, "tester");
  expectSameBytes(expected, engine_.last());
}

TEST_F(LoginName, ReplacesTheUserStarWithoutConversionToo) {
  writePasswd("tester");
  char star[] = "*";
  EXPECT_EQ(101, w_ArmInit(0, "a", star, 0, nullptr, 0));
  EXPECT_EQ("tester", sentUser());
  EXPECT_STREQ("*", star);
}

TEST_F(LoginName, ReplacesOnlyAUserThatIsExactlyAStar) {
  writePasswd("tester");
  for (const char* user : {"**", "*a", "a*", " *"}) {
    EXPECT_EQ(101, arm_init("a", user, 0, nullptr, 0));
    EXPECT_EQ(user, sentUser());
  }
}

TEST_F(LoginName, IsConvertedWhateverTheConvertArgument) {
  writePasswd("m\xFCller");
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(101, arm_init("a", "*", 0, nullptr, 0));
  EXPECT_EQ("m\xC3\xBCller", sentUser());
  EXPECT_EQ(101, w_ArmInit(0, "\xE9", "*", 0, nullptr, 0));
  EXPECT_EQ("m\xC3\xBCller", sentUser());
  EXPECT_EQ("\xE9", textAt(engine_.last(), 12, 128));
}

TEST_F(LoginName, NothingIsSentBehindItsConvertedZeroCharacter) {
  writePasswd("A+AAA-BCD");
  ASSERT_EQ(0, SetExpectedCodeset("UTF-7"));
  EXPECT_EQ(101, w_ArmInit(0, "a", "*", 0, nullptr, 0));
  Bytes expected = blankRecord(1);
  putText(expected, 12, "a");
  putText(expected, 140, "A");
  expectSameBytes(expected, engine_.last());
}

TEST_F(LoginName, OfAnUnknownUserIsTheEmptyUserAndNothingIsConverted) {
  writePasswd(nullptr);
  char star[] = "*";
  EXPECT_EQ(101, w_ArmInit(0, "a", star, 0, nullptr, 0));
  EXPECT_EQ("", sentUser());
  EXPECT_STREQ("*", star);
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  EXPECT_EQ(101, arm_init("a", "*", 0, nullptr, 0));
  EXPECT_EQ("", sentUser());
}

TEST_F(LoginName, ThatCannotBeConvertedIsMinus1003) {
  writePasswd(std::string(65, '\xE9').c_str());
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  char star[] = "*";
  EXPECT_EQ(-1003, arm_init("a", star, 0, nullptr, 0));
  // What was in use was a converted copy, not the caller's string.
  EXPECT_STREQ("*", star);
  expectTaken(0);
}

TEST_F(LoginName, ThatCannotBeConvertedEmptiesTheCallersStarWithoutConversion) {
  writePasswd(std::string(65, '\xE9').c_str());
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  char star[] = "*";
  EXPECT_EQ(-1003, w_ArmInit(0, "a", star, 0, nullptr, 0));
  EXPECT_EQ('\0', star[0]);
  expectTaken(0);
  EXPECT_EQ(101, w_ArmInit(0, "a", star, 0, nullptr, 0));
  EXPECT_EQ("", sentUser());
}

TEST_F(LoginName, ThatCannotBeConvertedDoesNotCrashWhenTheStarIsALiteral) {
  writePasswd(std::string(65, '\xE9').c_str());
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const char* literal = "*";
  EXPECT_EQ(-1003, w_ArmInit(0, "a", literal, 0, nullptr, 0));
  EXPECT_EQ('*', *const_cast<const volatile char*>(literal));
  expectTaken(0);
}

TEST_F(LoginName, Of127BytesIsSentWhole) {
  const std::string login(127, 'l');
  writePasswd(login.c_str());
  EXPECT_EQ(101, arm_init("a", "*", 0, nullptr, 0));
  EXPECT_EQ(login, sentUser());
}

TEST_F(LoginName, Of128BytesIsSentAs127) {
  writePasswd(std::string(128, 'l').c_str());
  EXPECT_EQ(101, arm_init("a", "*", 0, nullptr, 0));
  EXPECT_EQ(std::string(127, 'l'), sentUser());
}

TEST_F(LoginName, OfMoreThan128BytesCannotBeConverted) {
  writePasswd(std::string(300, 'l').c_str());
  EXPECT_EQ(-1003, arm_init("a", "*", 0, nullptr, 0));
  expectTaken(0);
}

}  // namespace
}  // namespace armtest
