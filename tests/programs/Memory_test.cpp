// Copies of segments that are made for the test, without an engine.

#include "armstat/Memory.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <random>
#include <thread>

#include "armstat/Show.h"
#include "process.h"

namespace {

using armstat::Copy;
using armstat::Manner;
using armtest::waitUntil;

/// A private segment that is attached, and removed at the end.
class TestSegment {
 public:
  explicit TestSegment(std::size_t size)
      : id_(shmget(IPC_PRIVATE, size, 0600)),
        words_(static_cast<uint32_t*>(shmat(id_, nullptr, 0))) {
    described_.id = id_;
    described_.size = size;
  }
  ~TestSegment() {
    shmdt(words_);
    shmctl(id_, IPC_RMID, nullptr);
  }
  TestSegment(const TestSegment&) = delete;
  TestSegment& operator=(const TestSegment&) = delete;

  const armstat::Segment& described() const { return described_; }
  void write(std::size_t word, uint32_t value) {
    __atomic_store_n(words_ + word, value, __ATOMIC_RELAXED);
  }

 private:
  int id_;
  uint32_t* words_;
  armstat::Segment described_;
};

armstat::Objects withRequests(const TestSegment& segment) {
  armstat::Objects objects;
  objects.requests = segment.described();
  return objects;
}

armstat::Objects withReplies(const TestSegment& segment) {
  armstat::Objects objects;
  objects.replies = segment.described();
  return objects;
}

TEST(Memory, HeaderIsCopied) {
  TestSegment segment(28 + 3 * 4116 + 4000);
  segment.write(0, 0x00020001);
  segment.write(6, 5);
  const armstat::RequestQueue queue = copyRequests(withRequests(segment), Manner::without_lock);
  EXPECT_EQ(Copy::steady, queue.copy);
  EXPECT_EQ(3, queue.capacity);
  EXPECT_EQ(1, queue.header.count);
  EXPECT_EQ(2, queue.header.head);
  EXPECT_EQ(5U, queue.header.ready_for_io);
}

TEST(Memory, SegmentsWithoutRoomAreBorne) {
  for (const std::size_t size : {1U, 27U}) {
    const TestSegment segment(size);
    EXPECT_EQ(Copy::none, copyRequests(withRequests(segment), Manner::without_lock).copy);
  }
  const TestSegment bare(28);
  EXPECT_EQ(0, copyRequests(withRequests(bare), Manner::without_lock).capacity);
  const TestSegment tiny(11);
  EXPECT_EQ(Copy::none, copyReplies(withReplies(tiny), Manner::without_lock).copy);
  const TestSegment one(12 + 548);
  EXPECT_EQ(1U, copyReplies(withReplies(one), Manner::without_lock).links.size());
  EXPECT_EQ(Copy::none, copyReplies(armstat::Objects(), Manner::with_lock).copy);
}

TEST(Memory, CopyThatChangesAllTheTimeIsTorn) {
  TestSegment segment(28 + 4116);
  std::atomic<bool> over{false};
  std::thread writer([&] {
    for (uint32_t i = 0; !over; ++i) segment.write(1, i);
  });
  const armstat::Objects objects = withRequests(segment);
  EXPECT_TRUE(waitUntil([&] {
    // Both threads must have a processor for a moment.
    for (int i = 0; i < 10000; ++i) {
      if (copyRequests(objects, Manner::without_lock).copy == Copy::torn) return true;
    }
    return false;
  }));
  over = true;
  writer.join();
  EXPECT_EQ(Copy::steady, copyRequests(objects, Manner::without_lock).copy);
}

TEST(Memory, RandomContentsDoNoHarm) {
  constexpr std::size_t REQUESTERS = 9;
  TestSegment requests(28 + 4116);
  TestSegment replies(12 + REQUESTERS * 548);
  armstat::Picture picture;
  picture.objects = withRequests(requests);
  picture.objects.replies = replies.described();
  std::mt19937 random(2);
  for (int round = 0; round < 300; ++round) {
    for (std::size_t i = 0; i < 7; ++i) requests.write(i, static_cast<uint32_t>(random()));
    // Half of the rounds have numbers that can be offsets.
    for (std::size_t i = 0; i < 3 + REQUESTERS * 137; ++i) {
      const auto word = static_cast<uint32_t>(random());
      replies.write(i, round % 2 == 0 ? word : word % 1300 * 4);
    }
    picture.replies = copyReplies(picture.objects, Manner::without_lock);
    picture.requests = copyRequests(picture.objects, Manner::without_lock);
    for (const TIPCHeadItem& head : picture.replies.heads) {
      EXPECT_LE(follow(picture.replies, head.first_reply).length, REQUESTERS);
    }
    EXPECT_FALSE(asText(picture).empty());
  }
}

TEST(Memory, TornCopiesAreCalledSo) {
  armstat::Picture picture;
  picture.requests.copy = Copy::torn;
  picture.replies.copy = Copy::torn;
  const std::string text = asText(picture);
  EXPECT_NE(std::string::npos, text.find("torn: it changed while it was copied")) << text;
  EXPECT_NE(std::string::npos, asJson(picture, false).find("\"copy\":\"torn\""));
}

TEST(Memory, LockIsTakenForTheCopyAndGivenBack) {
  const TestSegment segment(28 + 4116);
  armstat::Objects objects = withRequests(segment);
  armstat::SemaphoreSet& lock = objects.request_lock;
  lock.id = semget(IPC_PRIVATE, 2, 0600);
  lock.expected = 2;
  lock.count = 2;
  EXPECT_EQ(Copy::locked, copyRequests(objects, Manner::with_lock).copy);
  EXPECT_EQ(0, semctl(lock.id, 0, GETVAL));
  EXPECT_EQ(getpid(), semctl(lock.id, 0, GETPID));
  EXPECT_EQ(0, semctl(lock.id, 0, IPC_RMID));
}

TEST(Memory, SetThatIsTooSmallIsNoLock) {
  const TestSegment segment(28 + 4116);
  armstat::Objects objects = withRequests(segment);
  objects.request_lock.id = semget(IPC_PRIVATE, 1, 0600);
  objects.request_lock.expected = 2;
  objects.request_lock.count = 1;
  EXPECT_EQ(Copy::steady, copyRequests(objects, Manner::with_lock).copy);
  EXPECT_EQ(0, semctl(objects.request_lock.id, 0, GETVAL));
  EXPECT_EQ(0, semctl(objects.request_lock.id, 0, IPC_RMID));
}

}  // namespace
