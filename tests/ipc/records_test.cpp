// The request records of every call, byte for byte as they lie in the ring, and what comes back.

#include <gtest/gtest.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "arm/arm_user_data1.h"
#include "armext.h"
#include "now.h"
#include "rawqueues.h"

namespace armtest {
namespace {

constexpr int32_t RESULT = 0x01020304;

/// What a request should be: 4116 bytes, zero unless put here.
class Expected {
 public:
  explicit Expected(int32_t type) : bytes_(4116) {
    put(0, getpid());
#if defined(__LP64__)
    put(4, static_cast<int32_t>(syscall(SYS_gettid)));
#else
    put(4, static_cast<int32_t>(pthread_self()));
#endif
    put(8, type);
  }
  Expected& put(size_t offset, int32_t value) {
    std::memcpy(bytes_.data() + offset, &value, 4);
    return *this;
  }
  Expected& put(size_t offset, const std::string& text) {
    std::memcpy(bytes_.data() + offset, text.data(), text.size());
    return *this;
  }
  Expected& put(size_t offset, const Bytes& block, size_t length) {
    std::memcpy(bytes_.data() + offset, block.data(), length);
    return *this;
  }
  const Bytes& bytes() const {
    return bytes_;
  }

 private:
  Bytes bytes_;
};

/// A caller's block of a format, every other byte from a pattern without the ignore bit at 197.
Bytes block(int32_t format, size_t size) {
  Bytes made(size);
  for (size_t i = 0; i < size; ++i) made[i] = static_cast<uint8_t>(1 + i * 11 + i / 250);
  std::memcpy(made.data(), &format, 4);
  made[4] = 0;
  if (size > 197) made[197] = 0x10;
  return made;
}

class Records : public testing::Test {
 protected:
  Records()
      : requests_(8),
        replies_(8),
        engine_(requests_, replies_, replyRecord(RESULT)),
        before_(time(nullptr)) {}

  /// The one request that was posted.
  Bytes request() const {
    const std::vector<Bytes> taken = engine_.taken();
    EXPECT_EQ(1U, taken.size());
    return taken.empty() ? Bytes(4116) : taken.back();
  }

  void expectRequest(const Expected& expected) const { EXPECT_EQ(expected.bytes(), request()); }

  /// The same for a record with a time stamp, which must be one of now.
  void expectStamped(const Expected& expected, size_t offset) const {
    const Bytes sent = request();
    const uint32_t seconds = word(sent, offset);
    const uint32_t nanoseconds = word(sent, offset + 4);
    EXPECT_LE(before_, static_cast<time_t>(seconds));
    EXPECT_GE(now(), static_cast<time_t>(seconds));
    EXPECT_LT(nanoseconds, 1000000000U);
    EXPECT_EQ(0U, nanoseconds % 1000);
    Expected stamped = expected;
    stamped.put(offset, static_cast<int32_t>(seconds));
    stamped.put(offset + 4, static_cast<int32_t>(nanoseconds));
    EXPECT_EQ(stamped.bytes(), sent);
  }

  RequestQueue requests_;
  ReplyQueue replies_;
  AnsweringEngine engine_;
  time_t before_;
};

// ---- init ---------------------------------------------------------------------------------------

TEST_F(Records, Init) {
  int32_t data = 99;
  EXPECT_EQ(RESULT, arm_init("the name", "the user", 0x11223344, &data, 4));
  expectRequest(Expected(1).put(12, "the name").put(140, "the user").put(268, int32_t{0x11223344}));
}

TEST_F(Records, InitWithNamesOf127Characters) {
  const std::string name(127, 'n');
  const std::string user(127, 'u');
  EXPECT_EQ(RESULT, arm_init(name.c_str(), user.c_str(), 0, nullptr, 0));
  expectRequest(Expected(1).put(12, name).put(140, user));
  EXPECT_EQ('n', request()[138]);
  EXPECT_EQ(0, request()[139]);
  EXPECT_EQ(0, request()[267]);
}

TEST_F(Records, InitWithNullUserSendsTheEmptyUser) {
  EXPECT_EQ(RESULT, arm_init("a", nullptr, -1, nullptr, 0));
  expectRequest(Expected(1).put(12, "a").put(268, -1));
}

TEST_F(Records, InitWithStarSendsTheLoginName) {
  EXPECT_EQ(RESULT, arm_init("a", "*", 0, nullptr, 0));
  expectRequest(Expected(1).put(12, "a").put(140, getpwuid(getuid())->pw_name));
}

TEST_F(Records, InitWithoutConversionSendsTheBytesAsTheyAre) {
  EXPECT_EQ(RESULT, w_ArmInit(0, "n\xFF\x80m", "\xC3", 1, nullptr, 0));
  expectRequest(Expected(1).put(12, "n\xFF\x80m").put(140, "\xC3").put(268, 1));
}

// ---- getid --------------------------------------------------------------------------------------

TEST_F(Records, GetidWithAFormat101Block) {
  Bytes data = block(101, 344);
  EXPECT_EQ(RESULT, arm_getid(7, "class", "detail", 0x55, data.data(), 344));
  expectRequest(Expected(2)
                    .put(12, 7)
                    .put(16, "class")
                    .put(3636, "detail")
                    .put(3768, data, 344)
                    .put(4112, 344));
}

TEST_F(Records, GetidDropsTheCallersFlags) {
  EXPECT_EQ(RESULT, arm_getid(7, "class", nullptr, -1, nullptr, 55));
  expectRequest(Expected(2).put(12, 7).put(16, "class"));
}

TEST_F(Records, GetidCopiesTheWholeBlockWhateverPositiveSizeIsGiven) {
  Bytes data = block(101, 344);
  EXPECT_EQ(RESULT, arm_getid(7, "class", "", 0, data.data(), 1));
  expectRequest(Expected(2).put(12, 7).put(16, "class").put(3768, data, 344).put(4112, 1));
}

TEST_F(Records, GetidCopiesNoBlockOfANegativeSizeButSendsTheSize) {
  Bytes data = block(101, 344);
  EXPECT_EQ(RESULT, arm_getid(7, "class", "", 0, data.data(), -3));
  expectRequest(Expected(2).put(12, 7).put(16, "class").put(4112, -3));
}

TEST_F(Records, GetidSendsNoBlockOfAnotherFormat) {
  Bytes data = block(1, 344);
  EXPECT_EQ(RESULT, arm_getid(7, "class", "", 0, data.data(), 344));
  expectRequest(Expected(2).put(12, 7).put(16, "class"));
}

TEST_F(Records, GetidNameOf3619CharactersEndsAtByte3634) {
  const std::string name = std::string(3618, 'n') + "e";
  const std::string detail(127, 'd');
  EXPECT_EQ(RESULT, w_ArmGetID(0, 7, name.c_str(), detail.c_str(), 0, nullptr, 0));
  expectRequest(Expected(2).put(12, 7).put(16, name).put(3636, detail));
  EXPECT_EQ('e', request()[3634]);
  EXPECT_EQ(0, request()[3635]);
  EXPECT_EQ(0, request()[3763]);
}

TEST_F(Records, GetidWithConversionSendsTheLongestNames) {
  const std::string name(3619, 'n');
  EXPECT_EQ(RESULT, arm_getid(7, name.c_str(), "", 0, nullptr, 0));
  expectRequest(Expected(2).put(12, 7).put(16, name));
}

// ---- start --------------------------------------------------------------------------------------

TEST_F(Records, Start) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_start(9, 0, data.data(), 256));
  expectStamped(Expected(3).put(12, 9).put(20, data, 256).put(276, 256), 280);
}

TEST_F(Records, StartDropsTheCallersFlags) {
  EXPECT_EQ(RESULT, arm_start(9, 0x7F, nullptr, 256));
  expectStamped(Expected(3).put(12, 9), 280);
}

TEST_F(Records, StartOfIdZeroIsSent) {
  EXPECT_EQ(RESULT, arm_start(0, 0, nullptr, 0));
  expectStamped(Expected(3), 280);
}

TEST_F(Records, StartSendsNoBlockOfFormatFiveAndSizeZero) {
  Bytes data = block(5, 256);
  EXPECT_EQ(RESULT, arm_start(9, 0, data.data(), 256));
  expectStamped(Expected(3).put(12, 9), 280);
}

TEST_F(Records, StartCopiesTheWholeBlockWhateverPositiveSizeIsGiven) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_start(9, 0, data.data(), 1));
  expectStamped(Expected(3).put(12, 9).put(20, data, 256).put(276, 1), 280);
}

TEST_F(Records, StartCopiesNoBlockOfANegativeSizeButSendsTheSize) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_start(9, 0, data.data(), -1));
  expectStamped(Expected(3).put(12, 9).put(276, -1), 280);
}

// ---- update -------------------------------------------------------------------------------------

TEST_F(Records, UpdateWithAFormat1BlockSends256Bytes) {
  Bytes data = block(1, 1024);
  EXPECT_EQ(RESULT, arm_update(9, 0x66, data.data(), 256));
  expectStamped(Expected(4).put(12, 9).put(16, 0x66).put(20, data, 256).put(1044, 256), 1048);
}

TEST_F(Records, UpdateWithAFormat2BlockSends1024Bytes) {
  Bytes data = block(2, 1024);
  EXPECT_EQ(RESULT, arm_update(9, -1, data.data(), 1024));
  expectStamped(Expected(4).put(12, 9).put(16, -1).put(20, data, 1024).put(1044, 1024), 1048);
}

TEST_F(Records, UpdateDoesNotCompareTheSizeWithWhatIsCopied) {
  Bytes data = block(2, 1024);
  EXPECT_EQ(RESULT, arm_update(9, 0, data.data(), -7));
  expectStamped(Expected(4).put(12, 9).put(20, data, 1024).put(1044, -7), 1048);
}

TEST_F(Records, UpdateWithAFormat1BlockOfSizeZeroSendsItsBytes) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_update(9, 0, data.data(), 0));
  expectStamped(Expected(4).put(12, 9).put(20, data, 256), 1048);
}

TEST_F(Records, UpdateSendsNoBlockOfAnotherFormat) {
  Bytes data = block(3, 1024);
  EXPECT_EQ(RESULT, arm_update(9, 0, data.data(), 1024));
  expectStamped(Expected(4).put(12, 9), 1048);
}

TEST_F(Records, UpdateWithoutBlockSendsSizeZero) {
  EXPECT_EQ(RESULT, arm_update(9, 0, nullptr, 1024));
  expectStamped(Expected(4).put(12, 9), 1048);
}

// ---- stop ---------------------------------------------------------------------------------------

TEST_F(Records, Stop) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_stop(9, 2, 0x77, data.data(), 256));
  expectStamped(Expected(5).put(12, 9).put(16, 2).put(20, 0x77).put(24, data, 256).put(280, 256),
                284);
}

TEST_F(Records, StopSendsABlockOfAnyFormat) {
  Bytes data = block(5, 256);
  EXPECT_EQ(RESULT, arm_stop(9, -1, -1, data.data(), 3));
  expectStamped(Expected(5).put(12, 9).put(16, -1).put(20, -1).put(24, data, 256).put(280, 3), 284);
}

TEST_F(Records, StopWithoutBlockSendsSizeZero) {
  EXPECT_EQ(RESULT, arm_stop(9, 0, 0, nullptr, 256));
  expectStamped(Expected(5).put(12, 9), 284);
}

TEST_F(Records, StopCopiesNoBlockOfANegativeSizeButSendsTheSize) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_stop(9, 0, 0, data.data(), -2));
  expectStamped(Expected(5).put(12, 9).put(280, -2), 284);
}

TEST_F(Records, StopOfHandleZeroIsSent) {
  EXPECT_EQ(RESULT, arm_stop(0, 1, 0, nullptr, 0));
  expectStamped(Expected(5).put(16, 1), 284);
}

// ---- end ----------------------------------------------------------------------------------------

TEST_F(Records, EndDropsTheCallersFlagsAndData) {
  int32_t data = 99;
  EXPECT_EQ(RESULT, arm_end(7, -1, &data, 4));
  expectRequest(Expected(6).put(12, 7));
}

// ---- completions --------------------------------------------------------------------------------

TEST_F(Records, CompleteTransaction) {
  EXPECT_EQ(RESULT, arm_completeTransaction(9, 8, -7));
  expectStamped(Expected(15).put(12, 9).put(16, 8).put(20, -7), 24);
}

TEST_F(Records, CompleteTransactionInstance) {
  EXPECT_EQ(RESULT, arm_completeTransactionInstance(9, 8, 7));
  expectStamped(Expected(18).put(12, 9).put(16, 8).put(20, 7), 24);
}

// ---- reports ------------------------------------------------------------------------------------

TEST_F(Records, TransactionReport) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_transactionReport(9, 0x5555, data.data(), 256, 1, 6, 7, -8));
  expectStamped(
      Expected(16).put(12, 9).put(16, 6).put(20, 7).put(24, -8).put(32, data, 256).put(288, 256),
      292);
}

TEST_F(Records, TransactionInstanceReport) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_transactionInstanceReport(9, 0x5555, data.data(), 1, -1, 6, 7, 8));
  expectStamped(
      Expected(17).put(12, 9).put(16, 6).put(20, 7).put(24, 8).put(32, data, 256).put(288, 1), 292);
}

TEST_F(Records, ReportWithoutStampCarriesTimeZero) {
  EXPECT_EQ(RESULT, arm_transactionReport(9, 0, nullptr, 256, 0, 6, 7, 8));
  expectRequest(Expected(16).put(12, 9).put(16, 6).put(20, 7).put(24, 8));
}

TEST_F(Records, ReportSendsNoBlockOfAnotherFormat) {
  Bytes data = block(2, 256);
  EXPECT_EQ(RESULT, arm_transactionReport(9, 0, data.data(), 256, 0, 6, 7, 8));
  expectRequest(Expected(16).put(12, 9).put(16, 6).put(20, 7).put(24, 8));
}

TEST_F(Records, ReportCopiesNoBlockOfANegativeSizeButSendsTheSize) {
  Bytes data = block(1, 256);
  EXPECT_EQ(RESULT, arm_transactionInstanceReport(9, 0, data.data(), -4, 0, 6, 7, 8));
  expectRequest(Expected(17).put(12, 9).put(16, 6).put(20, 7).put(24, 8).put(288, -4));
}

// ---- metric data --------------------------------------------------------------------------------

TEST_F(Records, MetricDataOf4096BytesFillsTheRecordToItsLastByte) {
  const Bytes data = block(0x61626364, 4096);
  EXPECT_EQ(RESULT, arm_associateMetricData(9, data.data(), 4096));
  expectRequest(Expected(19).put(12, 9).put(16, 4096).put(20, data, 4096));
  EXPECT_EQ(data[4095], request()[4115]);
}

TEST_F(Records, MetricDataOfOneByte) {
  EXPECT_EQ(RESULT, arm_associateMetricData(0, "x", 1));
  expectRequest(Expected(19).put(16, 1).put(20, "x"));
}

// ---- replies ------------------------------------------------------------------------------------

TEST_F(Records, ResultWordIsReturnedUnchanged) {
  for (const int32_t result : {0, 1, -1, -1003, INT_MAX, INT_MIN}) {
    engine_.setReply(replyRecord(result));
    EXPECT_EQ(result, arm_stop(9, 0, 0, nullptr, 0));
  }
}

/// The three calls that hand a correlator back.
using Call = int32_t (*)(void* data);

class CorrelatorRecords : public Records, public testing::WithParamInterface<Call> {
 protected:
  /// Makes the call with a block of these flags and returns the block as it is afterwards.
  Bytes called(Bytes data) {
    EXPECT_EQ(RESULT, GetParam()(data.data()));
    return data;
  }
};

TEST_P(CorrelatorRecords, IsReturnedWhenAskedForAndGiven) {
  const Bytes reply = replyRecord(RESULT, 0x80, 0xC0);
  engine_.setReply(reply);
  Bytes data = block(1, 256);
  data[4] = 0x40;
  Bytes expected = data;
  expected[4] = 0x60;
  std::copy_n(reply.begin() + 8, 168, expected.begin() + 88);
  EXPECT_EQ(expected, called(data));
}

TEST_P(CorrelatorRecords, IsReturnedWhateverTheFormatWord) {
  const Bytes reply = replyRecord(RESULT, 1, 0xC0);
  engine_.setReply(reply);
  Bytes data = block(5, 256);
  data[4] = 0xD1;
  Bytes expected = data;
  expected[4] = 0xF1;
  std::copy_n(reply.begin() + 8, 168, expected.begin() + 88);
  EXPECT_EQ(expected, called(data));
}

TEST_P(CorrelatorRecords, NotGivenLeavesTheBlock) {
  engine_.setReply(replyRecord(RESULT, 0, 0xC0));
  Bytes data = block(1, 256);
  data[4] = 0x40;
  EXPECT_EQ(data, called(data));
}

TEST_P(CorrelatorRecords, NotAskedForLeavesTheBlock) {
  engine_.setReply(replyRecord(RESULT, 1, 0xC0));
  Bytes data = block(1, 256);
  data[4] = 0xBF;
  EXPECT_EQ(data, called(data));
}

TEST_P(CorrelatorRecords, WithoutBlockIsDropped) {
  engine_.setReply(replyRecord(RESULT, 1, 0xC0));
  EXPECT_EQ(RESULT, GetParam()(nullptr));
}

int32_t start(void* data) {
  return arm_start(9, 0, data, 256);
}
int32_t report(void* data) {
  return arm_transactionReport(9, 0, data, 256, 1, 1, 1, 1);
}
int32_t reportInstance(void* data) {
  return arm_transactionInstanceReport(9, 0, data, 256, 1, 1, 1, 1);
}

INSTANTIATE_TEST_SUITE_P(Start, CorrelatorRecords, testing::Values(start));
INSTANTIATE_TEST_SUITE_P(TransactionReport, CorrelatorRecords, testing::Values(report));
INSTANTIATE_TEST_SUITE_P(TransactionInstanceReport, CorrelatorRecords,
                         testing::Values(reportInstance));

TEST_F(Records, StopAndUpdateHandNoCorrelatorBack) {
  engine_.setReply(replyRecord(RESULT, 1, 0xC0));
  Bytes data = block(1, 256);
  data[4] = 0x40;
  const Bytes before_call = data;
  EXPECT_EQ(RESULT, arm_update(9, 0, data.data(), 256));
  EXPECT_EQ(RESULT, arm_stop(9, 0, 0, data.data(), 256));
  EXPECT_EQ(before_call, data);
}

// ---- the layout itself --------------------------------------------------------------------------

TEST(RecordLayout, CorrelatorIsRequestedByOneBitWhateverTheFormatWord) {
  EXPECT_FALSE(CorrelatorRequested(nullptr));
  for (const int32_t format : {1, 2, 5}) {
    Bytes data = block(format, 256);
    const auto* user = reinterpret_cast<const arm_user_data1_t*>(data.data());
    data[4] = 0x40;
    EXPECT_TRUE(CorrelatorRequested(user));
    data[4] = 0xBF;
    EXPECT_FALSE(CorrelatorRequested(user));
  }
}

TEST(RecordLayout, SizesAreExact) {
  EXPECT_EQ(4116U, sizeof(TArmMessage));
  EXPECT_EQ(528U, sizeof(TArmReplyMessage));
}

TEST(RecordLayout, DumpPrintsFourLines) {
  testing::internal::CaptureStdout();
  dumpMsgSizes();
  EXPECT_EQ(
      "Sizeof TArmMessage      [4116]\n"
      "  TArmMessage sizeof(sender_id)[8] sizeof(msg_type)[4] sizeof(messages)[4104]\n"
      "  TArmMessage offset sender_id[0] msg_type[8] messages[12]\n"
      "Sizeof TArmReplyMessage [528]\n",
      testing::internal::GetCapturedStdout());
}

}  // namespace
}  // namespace armtest
