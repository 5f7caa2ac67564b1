// No call changes errno, however it ends.

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "armext.h"
#include "rawqueues.h"

namespace armtest {
namespace {

struct Call {
  const char* name;
  void (*make)();
};

arm_user_data1_t g_block = {};

const std::vector<Call> CALLS = {
    {"arm_init", [] { (void)arm_init("name", "user", 0, nullptr, 0); }},
    {"arm_init of the login name", [] { (void)arm_init("name", "*", 0, nullptr, 0); }},
    {"arm_init of no name", [] { (void)arm_init(nullptr, nullptr, 0, nullptr, 0); }},
    {"w_ArmInit", [] { (void)w_ArmInit(0, "name", "user", 0, nullptr, 0); }},
    {"arm_getid", [] { (void)arm_getid(1, "name", "detail", 0, nullptr, 0); }},
    {"arm_getid of no id", [] { (void)arm_getid(0, "name", "detail", 0, nullptr, 0); }},
    {"w_ArmGetID", [] { (void)w_ArmGetID(0, 1, "name", "detail", 0, nullptr, 0); }},
    {"arm_start", [] { (void)arm_start(1, 0, &g_block, 256); }},
    {"arm_start of no id", [] { (void)arm_start(-1, 0, &g_block, 256); }},
    {"arm_update", [] { (void)arm_update(1, 0, &g_block, 256); }},
    {"arm_stop", [] { (void)arm_stop(1, 0, 0, &g_block, 256); }},
    {"arm_stop of IGNOREID", [] { (void)arm_stop(IGNOREID, 0, 0, &g_block, 256); }},
    {"arm_end", [] { (void)arm_end(1, 0, nullptr, 0); }},
    {"arm_transactionReport", [] { (void)arm_transactionReport(1, 0, &g_block, 256, 1, 1, 1, 1); }},
    {"arm_transactionInstanceReport",
     [] { (void)arm_transactionInstanceReport(1, 0, &g_block, 256, 1, 1, 1, 1); }},
    {"arm_completeTransaction", [] { (void)arm_completeTransaction(1, 1, 1); }},
    {"arm_completeTransactionInstance", [] { (void)arm_completeTransactionInstance(1, 1, 1); }},
    {"arm_associateMetricData", [] { (void)arm_associateMetricData(1, "data", 4); }},
    {"arm_getCorrelatorKey", [] { (void)arm_getCorrelatorKey(); }},
    {"GetExpectedCodeset", [] { (void)GetExpectedCodeset(); }},
    {"SetExpectedCodeset", [] { (void)SetExpectedCodeset("UTF-8"); }},
    {"SetExpectedCodeset again", [] { (void)SetExpectedCodeset("UTF-8"); }},
    {"SetExpectedCodeset of an unknown one", [] { (void)SetExpectedCodeset("no-such-set"); }}};

void expectErrnoUntouched() {
  constexpr int OURS = 4711;
  for (const Call& call : CALLS) {
    errno = OURS;
    call.make();
    EXPECT_EQ(OURS, errno) << call.name;
  }
}

TEST(Errno, IsUntouchedWithoutEngine) {
  expectErrnoUntouched();
}

TEST(Errno, IsUntouchedWithAnEngineThatAnswers) {
  RequestQueue requests(8);
  ReplyQueue replies(8);
  const AnsweringEngine engine(requests, replies, replyRecord(5, 1));
  expectErrnoUntouched();
  EXPECT_EQ(14U, engine.taken().size());
}

TEST(Errno, IsUntouchedWithAFullQueue) {
  RequestQueue requests(1);
  ReplyQueue replies(1);
  requests.setRing(1, 0, 0);
  EXPECT_EQ(-8, arm_end(1, 0, nullptr, 0));
  expectErrnoUntouched();
}

TEST(Errno, IsUntouchedWithAStoppedReplyQueue) {
  RequestQueue requests(64);
  ReplyQueue replies(1);
  EXPECT_EQ(-1, arm_end(0, 0, nullptr, 0));
  replies.setState(1);
  EXPECT_EQ(-9, arm_end(1, 0, nullptr, 0));
  expectErrnoUntouched();
}

TEST(Errno, IsUntouchedWhenTheEngineIsGone) {
  {
    RequestQueue requests(8);
    ReplyQueue replies(1);
    EXPECT_EQ(-1, arm_end(0, 0, nullptr, 0));
  }
  expectErrnoUntouched();
}

TEST(Errno, IsUntouchedWhileTracingFails) {
  setenv("ARMDEBUG", "1", 1);
  ASSERT_EQ(0, system("rm -rf /var/orv"));
  testing::internal::CaptureStdout();
  expectErrnoUntouched();
  testing::internal::GetCapturedStdout();
}

TEST(Errno, IsUntouchedWhileTracing) {
  setenv("ARMDEBUG", "1", 1);
  expectErrnoUntouched();
}

}  // namespace
}  // namespace armtest
