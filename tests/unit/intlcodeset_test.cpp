#include "intl/intlcodeset.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "arm/libarmutils.h"
#include "armext.h"
#include "convertercalls.h"
#include "files.h"
#include "process.h"
#include "tracing.h"

namespace armtest {
namespace {

using Texts = std::vector<std::string>;

constexpr const char* DATA_DIRECTORY = "/var/orv/kestra/common/QDN/icudata";

/// The result of a conversion, and what it left in a target of `capacity` bytes; the byte behind
/// stays.
struct Conversion {
  explicit Conversion(const char* source, long capacity = 128)
      : text(static_cast<size_t>(capacity) + 1, '?') {
    std::vector<UChar> work(static_cast<size_t>(capacity));
    result = ConvertStrUTF8(source, capacity, work.data(), text.data());
    EXPECT_EQ('?', text.back());
    text.pop_back();
  }

  /// The text up to its terminator.
  std::string terminated() const { return text.substr(0, text.find('\0')); }

  int32_t result = 0;
  std::string text;
};

std::string repeated(const char* text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

/// Makes ucnv_open refuse a name; null refuses the locale's default.
void refuseConverter(const char* refused) {
  calls::open_converter.replace([=](const char* name, UErrorCode* status) -> UConverter* {
    const bool same =
        refused == nullptr || name == nullptr ? refused == name : std::strcmp(refused, name) == 0;
    if (!same) return calls::open_converter.real(name, status);
    *status = U_FILE_ACCESS_ERROR;
    return nullptr;
  });
}

bool mutexIsFree() {
  bool free = false;
  std::thread([&] {
    free = VCodesetMutex.TryLock() == 0;
    if (free) (void)VCodesetMutex.Unlock();
  }).join();
  return free;
}

// ---- the expected code set ----------------------------------------------------------------------

TEST(ExpectedCodeset, NoneIsOpenAtFirst) {
  EXPECT_EQ(nullptr, GetExpectedCodeset());
}

TEST(ExpectedCodeset, IsSetBeforeAnyConversion) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
}

TEST(ExpectedCodeset, NameIsIcusOwn) {
  EXPECT_EQ(0, SetExpectedCodeset("latin1"));
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
}

TEST(ExpectedCodeset, SecondOneGivesMinus3004AndChangesNothing) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-3004, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ(-3004, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-3004, SetExpectedCodeset(nullptr));
  EXPECT_EQ(-3004, SetExpectedCodeset("no such code set"));
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
}

TEST(ExpectedCodeset, UnknownOneGivesMinus1003AndLeavesNoConverter) {
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(nullptr, GetExpectedCodeset());
}

TEST(ExpectedCodeset, NamedOneGetsNoBackup) {
  calls::open_converter.watch();
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(1, calls::open_converter.count());
}

TEST(ExpectedCodeset, AnotherCanBeSetAfterAnUnknownOne) {
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
}

TEST(ExpectedCodeset, ConversionAfterAnUnknownOneTakesTheLocales) {
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_STREQ(ucnv_getDefaultName(), GetExpectedCodeset());
}

TEST(ExpectedCodeset, NullIsTheLocales) {
  EXPECT_EQ(0, SetExpectedCodeset(nullptr));
  EXPECT_STREQ(ucnv_getDefaultName(), GetExpectedCodeset());
}

TEST(ExpectedCodeset, ConversionBeforeItOpensTheLocalesForGood) {
  calls::open_converter.replace([](const char* name, UErrorCode* status) {
    EXPECT_EQ(nullptr, name);
    return calls::open_converter.real(name, status);
  });
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_EQ(1, calls::open_converter.count());
  EXPECT_EQ(-3004, SetExpectedCodeset("ISO-8859-1"));
}

TEST(ExpectedCodeset, UsAsciiIsTheBackupOfTheLocales) {
  refuseConverter(nullptr);
  EXPECT_EQ(0, SetExpectedCodeset(nullptr));
  EXPECT_EQ(2, calls::open_converter.count());
  EXPECT_STREQ("US-ASCII", GetExpectedCodeset());
}

TEST(ExpectedCodeset, WithoutTheBackupTheResultIsMinus1003) {
  calls::open_converter.replace([](const char*, UErrorCode* status) -> UConverter* {
    *status = U_FILE_ACCESS_ERROR;
    return nullptr;
  });
  EXPECT_EQ(-1003, SetExpectedCodeset(nullptr));
  EXPECT_EQ(-1003, Conversion("abc").result);
}

TEST(ExpectedCodeset, CallsLeaveErrnoAlone) {
  errno = 77;
  (void)SetExpectedCodeset("no such code set");
  (void)SetExpectedCodeset("ISO-8859-1");
  (void)GetExpectedCodeset();
  EXPECT_EQ(77, errno);
}

TEST(ExpectedCodeset, CallsGiveTheMutexBack) {
  (void)SetExpectedCodeset("no such code set");
  EXPECT_TRUE(mutexIsFree());
  (void)SetExpectedCodeset("ISO-8859-1");
  EXPECT_TRUE(mutexIsFree());
  (void)SetExpectedCodeset("ISO-8859-1");
  EXPECT_TRUE(mutexIsFree());
  (void)GetExpectedCodeset();
  EXPECT_TRUE(mutexIsFree());
}

// ---- conversion ---------------------------------------------------------------------------------

TEST(CodesetConversion, SourceBecomesUtf8) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const Conversion conversion("caf\xe9");
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ("caf\xc3\xa9", conversion.terminated());
}

TEST(CodesetConversion, Utf8StaysAsItIs) {
  ASSERT_EQ(0, SetExpectedCodeset("UTF-8"));
  EXPECT_EQ("caf\xc3\xa9 \xf0\x9f\x99\x82",
            Conversion("caf\xc3\xa9 \xf0\x9f\x99\x82").terminated());
}

TEST(CodesetConversion, EmptySourceGivesAnEmptyTarget) {
  const Conversion conversion("");
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ("", conversion.terminated());
}

TEST(CodesetConversion, MalformedSourceIsSubstitutedAndSucceeds) {
  ASSERT_EQ(0, SetExpectedCodeset("US-ASCII"));
  const Conversion conversion("a\xff");
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ("a\xef\xbf\xbd", conversion.terminated());
}

TEST(CodesetConversion, Utf8LongerThanTheTargetGivesMinus1003) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-1003, Conversion(repeated("\xe9", 65).c_str()).result);
}

TEST(CodesetConversion, SourceLongerThanTheWorkingBufferGivesMinus1003) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-1003, Conversion(repeated("a", 129).c_str()).result);
}

TEST(CodesetConversion, LoneSurrogateGivesMinus1003) {
  ASSERT_EQ(0, SetExpectedCodeset("UTF-7"));
  EXPECT_EQ(-1003, Conversion("+2AA-").result);
}

TEST(CodesetConversion, Utf8ThatExactlyFillsTheTargetSucceedsWithoutATerminator) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const Conversion conversion(repeated("\xe9", 64).c_str());
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ(repeated("\xc3\xa9", 64), conversion.text);
}

TEST(CodesetConversion, SourceThatExactlyFillsBothBuffersSucceedsWithoutATerminator) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const Conversion conversion(repeated("a", 128).c_str());
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ(std::string(128, 'a'), conversion.text);
}

TEST(CodesetConversion, Utf8OneByteShorterThanTheTargetIsTerminated) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  const Conversion conversion(repeated("a", 127).c_str());
  EXPECT_EQ(0, conversion.result);
  EXPECT_EQ(std::string(127, 'a'), conversion.terminated());
}

TEST(CodesetConversion, ConverterStaysOpenAfterAFailure) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(-1003, Conversion(repeated("a", 129).c_str()).result);
  EXPECT_STREQ("ISO-8859-1", GetExpectedCodeset());
  EXPECT_EQ("caf\xc3\xa9", Conversion("caf\xe9").terminated());
}

TEST(CodesetConversion, GivesTheMutexBack) {
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_TRUE(mutexIsFree());
  EXPECT_EQ(-1003, Conversion("abc", 1).result);
  EXPECT_TRUE(mutexIsFree());
}

TEST(CodesetConversion, GivesTheMutexBackWithoutAConverter) {
  calls::putenv.fail(-1, ENOMEM);
  EXPECT_EQ(-3, Conversion("abc").result);
  EXPECT_TRUE(mutexIsFree());
}

TEST(CodesetConversion, WaitsForTheMutex) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  ASSERT_EQ(0, VCodesetMutex.Lock());
  calls::pthread_mutex_lock.watch();
  std::atomic<bool> released{false};
  bool early = true;
  std::thread converting([&] {
    EXPECT_EQ(0, Conversion("abc").result);
    early = !released;
  });
  EXPECT_TRUE(waitUntil([] { return calls::pthread_mutex_lock.count() > 0; }));
  released = true;
  EXPECT_EQ(0, VCodesetMutex.Unlock());
  converting.join();
  EXPECT_FALSE(early);
}

TEST(CodesetConversion, SeveralThreadsShareTheConverter) {
  const auto convert = [] {
    for (int i = 0; i < 100; ++i) EXPECT_EQ("abc", Conversion("abc").terminated());
  };
  std::thread first(convert);
  std::thread second(convert);
  first.join();
  second.join();
}

// ---- forks --------------------------------------------------------------------------------------

TEST(CodesetForks, ChildOfAProcessThatIsOpeningAConverterGetsMinus1003) {
  std::atomic<bool> opening{false};
  std::atomic<bool> forked{false};
  calls::open_converter.replace([&](const char* name, UErrorCode* status) {
    opening = true;
    EXPECT_TRUE(waitUntil([&] { return forked.load(); }));
    return calls::open_converter.real(name, status);
  });
  std::thread converting([] { EXPECT_EQ("abc", Conversion("abc").terminated()); });
  EXPECT_TRUE(waitUntil([&] { return opening.load(); }));
  const pid_t child = forkChild([] {
    int wrong = Conversion("abc").result == -1003 ? 0 : 1;
    wrong += SetExpectedCodeset("ISO-8859-1") == -1003 ? 0 : 2;
    wrong += GetExpectedCodeset() == nullptr ? 0 : 4;
    return wrong;
  });
  forked = true;
  converting.join();
  EXPECT_EQ(0, exitCodeOf(child));
}

TEST(CodesetForks, ChildOfAProcessThatIsConvertingConverts) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  ASSERT_EQ(0, VCodesetMutex.Lock());
  std::thread([] {
    EXPECT_EQ(0, exitCodeOf(forkChild(
                     [] { return Conversion("caf\xe9").terminated() == "caf\xc3\xa9" ? 0 : 1; })));
  }).join();
  EXPECT_EQ(0, VCodesetMutex.Unlock());
}

// ---- the environment ----------------------------------------------------------------------------

TEST(IcuData, IsSetAtTheFirstOpen) {
  unsetenv("ICU_DATA");
  EXPECT_EQ(nullptr, getenv("ICU_DATA"));
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_STREQ(DATA_DIRECTORY, getenv("ICU_DATA"));
}

TEST(IcuData, ValueOfTheApplicationIsReplaced) {
  setenv("ICU_DATA", "/opt/icu", 1);
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_STREQ(DATA_DIRECTORY, getenv("ICU_DATA"));
}

TEST(IcuData, IsSetByAFirstConversionToo) {
  setenv("ICU_DATA", "/opt/icu", 1);
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_STREQ(DATA_DIRECTORY, getenv("ICU_DATA"));
}

TEST(IcuData, IsSetOnce) {
  calls::putenv.watch();
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(1, calls::putenv.count());
}

TEST(IcuData, FailedPutenvGivesMinus3AndOpensNoConverter) {
  calls::putenv.fail(-1, ENOMEM);
  calls::open_converter.watch();
  EXPECT_EQ(-3, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(0, calls::open_converter.count());
  EXPECT_EQ(nullptr, GetExpectedCodeset());
}

TEST(IcuData, FailedPutenvIsNotTriedAgainAndCountsAsDone) {
  unsetenv("ICU_DATA");
  calls::putenv.fail(-1, ENOMEM);
  EXPECT_EQ(-3, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(1, calls::putenv.count());
  EXPECT_EQ(nullptr, getenv("ICU_DATA"));
}

TEST(IcuData, WithoutMemoryTheResultIsMinus3AndTheNextCallTriesAgain) {
  calls::malloc.fail(nullptr, ENOMEM, 0, 1);
  const int32_t first = ensure_ICU_DATA_EnvVarSet(0);
  calls::malloc.watch();
  EXPECT_EQ(-3, first);
  EXPECT_EQ(0, ensure_ICU_DATA_EnvVarSet(0));
  EXPECT_STREQ(DATA_DIRECTORY, getenv("ICU_DATA"));
}

TEST(IcuData, FlagTakesTheMutexAndGivesItBack) {
  calls::pthread_mutex_lock.watch();
  EXPECT_EQ(0, ensure_ICU_DATA_EnvVarSet(1));
  EXPECT_EQ(1, calls::pthread_mutex_lock.count());
  EXPECT_TRUE(mutexIsFree());
}

TEST(IcuData, FlagGivesTheMutexBackAfterAFailure) {
  calls::putenv.fail(-1, ENOMEM);
  EXPECT_EQ(-3, ensure_ICU_DATA_EnvVarSet(1));
  EXPECT_TRUE(mutexIsFree());
}

TEST(IcuData, WithoutTheFlagTheMutexIsNotTaken) {
  calls::pthread_mutex_lock.watch();
  EXPECT_EQ(0, ensure_ICU_DATA_EnvVarSet(0));
  EXPECT_EQ(0, calls::pthread_mutex_lock.count());
}

TEST(IcuData, OpeningAConverterTakesNoMutex) {
  ASSERT_EQ(0, VCodesetMutex.Lock());
  calls::pthread_mutex_lock.watch();
  EXPECT_EQ(0, intlGetICUConverter("ISO-8859-1"));
  EXPECT_EQ(0, calls::pthread_mutex_lock.count());
  EXPECT_EQ(0, VCodesetMutex.Unlock());
}

// ---- freeing ------------------------------------------------------------------------------------

TEST(FreeConverter, ClosesItAndLeavesNone) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  FreeIntlICUConverter();
  EXPECT_EQ(nullptr, GetExpectedCodeset());
}

TEST(FreeConverter, WithoutAConverterDoesNothing) {
  FreeIntlICUConverter();
  FreeIntlICUConverter();
  EXPECT_EQ(nullptr, GetExpectedCodeset());
}

TEST(FreeConverter, TakesNoLock) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  ASSERT_EQ(0, VCodesetMutex.Lock());
  calls::pthread_mutex_lock.watch();
  FreeIntlICUConverter();
  EXPECT_EQ(0, calls::pthread_mutex_lock.count());
  EXPECT_EQ(0, VCodesetMutex.Unlock());
}

TEST(FreeConverter, NextConversionOpensTheLocales) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  FreeIntlICUConverter();
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_STREQ(ucnv_getDefaultName(), GetExpectedCodeset());
}

// ---- traces -------------------------------------------------------------------------------------

TEST(CodesetTrace, FailedEnvironment) {
  startTracing();
  calls::putenv.fail(-1, ENOMEM);
  EXPECT_EQ(-3, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ((Texts{"intlGetICUConverter, ensure_ICU_DATA_EnvVarSet failed.\n"}), traceTexts());
}

TEST(CodesetTrace, UnknownCodesetIsNamedWithIcusCode) {
  startTracing();
  EXPECT_EQ(-1003, SetExpectedCodeset("nonsense"));
  EXPECT_EQ((Texts{"intlGetICUConverter()->ICU ERROR Code [4] on ucnv_open() for codeset "
                   "<nonsense> \n"}),
            traceTexts());
}

TEST(CodesetTrace, LocalesCodesetAndBackupHaveALineEach) {
  startTracing();
  calls::open_converter.replace([](const char*, UErrorCode* status) -> UConverter* {
    *status = U_FILE_ACCESS_ERROR;
    return nullptr;
  });
  EXPECT_EQ(-1003, SetExpectedCodeset(nullptr));
  EXPECT_EQ(
      (Texts{"intlGetICUConverter()->ICU ERROR Code [4] on ucnv_open() for codeset <(null)> \n",
             "intlGetICUConverter()->ICU ERROR Code [4] on ucnv_open() for backupCodeset. \n"}),
      traceTexts());
}

TEST(CodesetTrace, NameLongerThanTheLineIsCut) {
  startTracing();
  const std::string name(5000, 'n');
  EXPECT_EQ(-1003, SetExpectedCodeset(name.c_str()));
  const Texts texts = traceTexts();
  ASSERT_EQ(1U, texts.size());
  EXPECT_EQ(4095U, texts[0].size());
}

TEST(CodesetTrace, Utf8LongerThanTheTargetHasOneLine) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  startTracing();
  EXPECT_EQ(-1003, Conversion(repeated("\xe9", 65).c_str()).result);
  EXPECT_EQ((Texts{"ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [15] \n"}), traceTexts());
}

TEST(CodesetTrace, FailedFirstStepIsTracedTwiceUnderBothNames) {
  ASSERT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  startTracing();
  EXPECT_EQ(-1003, Conversion(repeated("a", 129).c_str()).result);
  EXPECT_EQ((Texts{"ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code [15] \n",
                   "ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [15] \n"}),
            traceTexts());
}

TEST(CodesetTrace, SuccessHasNoLine) {
  startTracing();
  EXPECT_EQ(0, Conversion("abc").result);
  EXPECT_EQ(-3004, SetExpectedCodeset("UTF-8"));
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(CodesetTrace, WithoutADebugRunNothingIsTraced) {
  EXPECT_EQ(-1003, SetExpectedCodeset("nonsense"));
  EXPECT_EQ(-1003, Conversion(repeated("a", 129).c_str()).result);
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(ExpectedCodeset, ConverterAndItsSettingAreMadeByTheFirstChoice) {
  EXPECT_EQ(nullptr, VCodesetConverter);
  EXPECT_EQ(nullptr, env_ICU_DATA);
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_NE(nullptr, VCodesetConverter);
  EXPECT_STREQ("ICU_DATA=/var/orv/kestra/common/QDN/icudata", env_ICU_DATA);
  FreeIntlICUConverter();
  EXPECT_EQ(nullptr, VCodesetConverter);
}

}  // namespace
}  // namespace armtest
