// Engines that use a segment again which is larger than what they lay out in it.

#include "CallTest.h"
#include "rawqueues.h"

namespace armtest {
namespace {

TEST(ReusedSegment, RepliesOfALayoutThatIsSmallerThanItsSegmentAreTaken) {
  for (const size_t spare : {1U, 16U, 532U, 547U, 548U, 549U, 5U * 548U, 65536U}) {
    RequestQueue requests(8);
    ReplyQueue replies(3, spare);
    const AnsweringEngine engine(requests, replies, replyRecord(77));
    for (const PostingCall& one : postingCalls()) EXPECT_EQ(77, one.call()) << one.name << spare;
    EXPECT_EQ(0, replies.usedItems());
    EXPECT_EQ(1, replies.headsInUse());
    EXPECT_EQ(postingCalls().size(), engine.taken().size());
  }
}

TEST(ReusedSegment, RepliesReachEachThreadOfALayoutThatIsSmallerThanItsSegment) {
  RequestQueue requests(8);
  ReplyQueue replies(3, 5 * 548);
  const AnsweringEngine engine(requests, replies, replyRecord(78));
  const auto call_twenty_times = [] {
    int32_t sum = 0;
    for (int i = 0; i < 20; ++i) sum += arm_start(5, 0, nullptr, 0);
    return sum;
  };
  CallInThread other(call_twenty_times);
  EXPECT_EQ(20 * 78, call_twenty_times());
  EXPECT_EQ(20 * 78, other.result());
  EXPECT_EQ(2, replies.headsInUse());
}

}  // namespace
}  // namespace armtest
