#include "platform/CkesThread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <type_traits>

#include "BodyThread.h"
#include "calls.h"
#include "diag/CkesErrorManager.h"
#include "errortrail.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"

namespace armtest {
namespace {

void nothing() {}

static_assert(std::is_abstract_v<CkesThread>);
static_assert(std::has_virtual_destructor_v<CkesThread>);

/// Makes threads that are invalid from here on.
void breakThreads() {
  calls::pthread_create.fail(EAGAIN, 0);
}

/// A thread that runs until the object ends.
struct RunningThread {
  RunningThread() : thread([this] { EXPECT_TRUE(waitUntil([this] { return may_end.load(); })); }) {
    EXPECT_EQ(0, thread.Start());
  }
  ~RunningThread() {
    may_end = true;
    thread.awaitEnd();
  }

  std::atomic<bool> may_end{false};
  BodyThread thread;
};

TEST(CkesThread, BodyRunsAfterStartOnly) {
  std::atomic<bool> started{false};
  std::atomic<bool> early{false};
  std::atomic<bool> ran{false};
  BodyThread thread([&] {
    early = !started;
    ran = true;
  });
  EXPECT_EQ(THREAD_CREATED, thread.GetState());
  started = true;
  EXPECT_EQ(0, thread.Start());
  thread.awaitEnd();
  EXPECT_TRUE(ran);
  EXPECT_FALSE(early);
}

TEST(CkesThread, SystemsThreadExistsFromConstructionOn) {
  calls::pthread_create.watch();
  BodyThread thread(nothing);
  EXPECT_EQ(1, calls::pthread_create.count());
  thread.finish();
  EXPECT_EQ(1, calls::pthread_create.count());
}

TEST(CkesThread, StateIsRunningInTheBodyAndFinishedAfterIt) {
  std::atomic<TThreadState> in_body{THREAD_INVALID};
  BodyThread* self = nullptr;
  BodyThread thread([&] { in_body = self->GetState(); });
  self = &thread;
  thread.finish();
  EXPECT_EQ(THREAD_RUNNING, in_body);
  EXPECT_EQ(THREAD_FINISHED, thread.GetState());
}

TEST(CkesThread, StatesHaveTheirNumbers) {
  EXPECT_EQ(0, THREAD_CREATED);
  EXPECT_EQ(1, THREAD_RUNNING);
  EXPECT_EQ(2, THREAD_FINISHED);
  EXPECT_EQ(3, THREAD_INVALID);
}

TEST(CkesThread, ConstructionInitializesTheThreadLibrary) {
  BodyThread thread(nothing);
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  thread.finish();
}

TEST(CkesThread, IsInvalidWhenTheSystemMakesNoThread) {
  breakThreads();
  const BodyThread thread(nothing);
  EXPECT_EQ(THREAD_INVALID, thread.GetState());
}

TEST(CkesThread, IsInvalidWithoutItsStartEventAndAsksForNoThread) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  calls::pthread_create.watch();
  const BodyThread thread(nothing);
  EXPECT_EQ(THREAD_INVALID, thread.GetState());
  EXPECT_EQ(0, calls::pthread_create.count());
}

TEST(CkesThread, IsInvalidWhenTheThreadLibraryCannotBeInitialized) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  const BodyThread thread(nothing);
  EXPECT_EQ(THREAD_INVALID, thread.GetState());
}

TEST(CkesThread, IsUnnamedByDefault) {
  BodyThread thread(nothing);
  EXPECT_STREQ("Unnamed", thread.GetName());
  thread.finish();
}

TEST(CkesThread, KeepsItsName) {
  BodyThread thread("worker", nothing);
  EXPECT_STREQ("worker", thread.GetName());
  thread.finish();
}

TEST(CkesThread, NameIsCutTo33Characters) {
  BodyThread thread("0123456789012345678901234567890123456789", nothing);
  EXPECT_STREQ("012345678901234567890123456789012", thread.GetName());
  thread.finish();
}

TEST(CkesThread, NameOf33CharactersIsKeptWhole) {
  BodyThread thread("012345678901234567890123456789012", nothing);
  EXPECT_STREQ("012345678901234567890123456789012", thread.GetName());
  thread.finish();
}

TEST(CkesThread, UnnamedIsTheNameOfAnInvalidThreadToo) {
  breakThreads();
  const BodyThread thread(nothing);
  EXPECT_STREQ("Unnamed", thread.GetName());
}

TEST(CkesThread, GivenNameIsNotStoredInAnInvalidThread) {
  breakThreads();
  const BodyThread thread("worker", nothing);
  EXPECT_STREQ("", thread.GetName());
}

TEST(CkesThread, BodyRunsUnderTheThreadsName) {
  std::string name;
  BodyThread thread("worker", [&] {
    char buffer[64] = "";
    EXPECT_EQ(0, CkesThreadLibrary::GetCurrentThreadName(buffer));
    name = buffer;
  });
  thread.finish();
  EXPECT_EQ("worker", name);
}

TEST(CkesThread, BodyHasAnErrorStackOfItsOwn) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  (void)CkesErrorManager::SetError(-5, "main thread");
  std::string error;
  BodyThread thread([&] { error = errorTrail(); });
  thread.finish();
  EXPECT_EQ("0 Error code not set.", error);
}

TEST(CkesThread, IsUnregisteredWhenItsBodyReturns) {
  BodyThread thread(nothing);
  std::atomic<int> cleared{0};
  calls::pthread_setspecific.replace([&](pthread_key_t key, const void* value) {
    if (value == nullptr) ++cleared;
    return calls::pthread_setspecific.real(key, value);
  });
  thread.finish();
  EXPECT_EQ(1, cleared);
}

TEST(CkesThread, StartBeforeTheThreadWaitsForItIsNotLost) {
  std::atomic<bool> started{false};
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  calls::pthread_setspecific.replace([&](pthread_key_t key, const void* value) {
    EXPECT_TRUE(waitUntil([&] { return started.load(); }));
    return calls::pthread_setspecific.real(key, value);
  });
  calls::pthread_cond_wait.watch();
  std::atomic<bool> ran{false};
  BodyThread thread([&] { ran = true; });
  EXPECT_EQ(0, thread.Start());
  started = true;
  thread.awaitEnd();
  EXPECT_TRUE(ran);
  EXPECT_EQ(0, calls::pthread_cond_wait.count());
}

TEST(CkesThread, SecondStartGivesMinus106) {
  BodyThread thread(nothing);
  EXPECT_EQ(0, thread.Start());
  EXPECT_EQ(-106, thread.Start());
  EXPECT_EQ("-106 CkesThread::Start()", errorTrail());
  thread.awaitEnd();
}

TEST(CkesThread, StartOfAnInvalidThreadGivesMinus106) {
  breakThreads();
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.Start());
}

TEST(CkesThread, StartReturnsTheResultOfItsEventAndCountsAsStartedAllTheSame) {
  BodyThread thread(nothing);
  calls::pthread_cond_broadcast.replace([](pthread_cond_t* condition) {
    (void)calls::pthread_cond_broadcast.real(condition);
    return EINVAL;
  });
  EXPECT_EQ(-134, thread.Start());
  EXPECT_EQ("-134 CkesThread::Start()", errorTrail());
  EXPECT_NE(THREAD_CREATED, thread.GetState());
  thread.awaitEnd();
}

TEST(CkesThread, FailingStartIsRecordedUnderItsOwnNameAlone) {
  BodyThread thread(nothing);
  calls::pthread_cond_broadcast.replace([](pthread_cond_t* condition) {
    (void)calls::pthread_cond_broadcast.real(condition);
    return EINVAL;
  });
  EXPECT_EQ(-134, thread.Start());
  char trail[100] = "";
  EXPECT_EQ(0, CkesErrorManager::GetStackDump(trail, sizeof trail));
  EXPECT_STREQ("CkesThread::Start()\n", trail);
  thread.awaitEnd();
}

TEST(CkesThread, IDIsThePosixThreadOfTheBody) {
  unsigned long in_body = 0;
  BodyThread thread([&] { in_body = pthread_self(); });
  unsigned long id = 0;
  EXPECT_EQ(0, thread.GetID(&id));
  thread.finish();
  EXPECT_EQ(in_body, id);
}

TEST(CkesThread, FinishedThreadStillHasItsID) {
  BodyThread thread(nothing);
  thread.finish();
  unsigned long id = 0;
  EXPECT_EQ(0, thread.GetID(&id));
}

TEST(CkesThread, GetIDOfAnInvalidThreadGivesMinus106) {
  breakThreads();
  BodyThread thread(nothing);
  unsigned long id = 0;
  EXPECT_EQ(-106, thread.GetID(&id));
  EXPECT_EQ("-106 CkesThread::GetID()", errorTrail());
}

TEST(CkesThread, SetPriorityOfARunningThreadGivesMinus2AndRecordsIt) {
  RunningThread running;
  EXPECT_EQ(-2, running.thread.SetPriority(THREAD_PRIORITY_NORMAL));
  EXPECT_EQ("-2 CkesThread::SetPriority()", errorTrail());
}

TEST(CkesThread, SetPriorityOfACreatedThreadGivesMinus2) {
  BodyThread thread(nothing);
  EXPECT_EQ(-2, thread.SetPriority(THREAD_PRIORITY_NORMAL));
  thread.finish();
}

TEST(CkesThread, SetPriorityOfAnInvalidThreadGivesMinus106) {
  breakThreads();
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.SetPriority(THREAD_PRIORITY_NORMAL));
  EXPECT_EQ("-106 CkesThread::SetPriority()", errorTrail());
}

TEST(CkesThread, SetPriorityOfAFinishedThreadGivesMinus106) {
  BodyThread thread(nothing);
  thread.finish();
  EXPECT_EQ(-106, thread.SetPriority(THREAD_PRIORITY_NORMAL));
}

TEST(CkesThread, GetPriorityOfARunningThreadGivesMinus2AndRecordsIt) {
  RunningThread running;
  TThreadPriority priority = THREAD_PRIORITY_NORMAL;
  EXPECT_EQ(-2, running.thread.GetPriority(&priority));
  EXPECT_EQ("-2 CkesThread::GetPriority()", errorTrail());
}

TEST(CkesThread, GetPriorityOfACreatedThreadGivesMinus2) {
  BodyThread thread(nothing);
  TThreadPriority priority = THREAD_PRIORITY_NORMAL;
  EXPECT_EQ(-2, thread.GetPriority(&priority));
  thread.finish();
}

TEST(CkesThread, GetPriorityOfAFinishedThreadGivesMinus106) {
  BodyThread thread(nothing);
  thread.finish();
  TThreadPriority priority = THREAD_PRIORITY_NORMAL;
  EXPECT_EQ(-106, thread.GetPriority(&priority));
  EXPECT_EQ("-106 CkesThread::GetPriority()", errorTrail());
}

TEST(CkesThread, JoinOfAFinishedThreadAsksTheSystemForNothing) {
  BodyThread thread(nothing);
  thread.finish();
  calls::pthread_join.watch();
  EXPECT_EQ(0, thread.Join());
  EXPECT_EQ(0, calls::pthread_join.count());
}

TEST(CkesThread, JoinOfAnInvalidThreadGivesMinus106) {
  breakThreads();
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.Join());
  EXPECT_EQ("-106 CkesThread::Join()", errorTrail());
}

#if !defined(__SANITIZE_THREAD__)
// ThreadSanitizer forgets a thread when somebody tries to join it, even in vain, and ends the
// program at the next join.
TEST(CkesThread, JoinOfItselfGivesMinus109) {
  std::string error;
  long result = 0;
  BodyThread* self = nullptr;
  BodyThread thread([&] {
    result = self->Join();
    error = errorTrail();
  });
  self = &thread;
  EXPECT_EQ(0, thread.Start());
  thread.awaitEnd();
  EXPECT_EQ(-109, result);
  EXPECT_EQ("-109 CkesThread::Join()", error);
}
#endif

TEST(CkesThread, JoinThatFailsOtherwiseGivesMinus110) {
  RunningThread running;
  calls::pthread_join.fail(ESRCH, 0);
  EXPECT_EQ(-110, running.thread.Join());
  EXPECT_EQ("-110 CkesThread::Join()", errorTrail());
}

TEST(CkesThread, JoinOfACreatedThreadWaitsForItsEnd) {
  BodyThread thread(nothing);
  calls::pthread_join.watch();
  std::thread starter([&] {
    EXPECT_TRUE(waitUntil([] { return calls::pthread_join.count() == 1; }));
    EXPECT_EQ(0, thread.Start());
  });
  EXPECT_EQ(0, thread.Join());
  EXPECT_EQ(THREAD_FINISHED, thread.GetState());
  starter.join();
}

TEST(CkesThread, TerminateCancelsTheBody) {
  std::atomic<bool> waiting{false};
  std::atomic<bool> returned{false};
  BodyThread thread([&] {
    waiting = true;
    (void)pause();
    returned = true;
  });
  ASSERT_EQ(0, thread.Start());
  EXPECT_TRUE(waitUntil([&] { return waiting.load(); }));
  EXPECT_EQ(0, thread.Terminate());
  EXPECT_EQ(THREAD_FINISHED, thread.GetState());
  void* result = nullptr;
  EXPECT_EQ(0, pthread_join(thread.posixThread(), &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_FALSE(returned);
}

TEST(CkesThread, IsUnregisteredWhenItsBodyIsCancelled) {
  std::atomic<bool> waiting{false};
  BodyThread thread([&] {
    waiting = true;
    (void)pause();
  });
  std::atomic<int> cleared{0};
  calls::pthread_setspecific.replace([&](pthread_key_t key, const void* value) {
    if (value == nullptr) ++cleared;
    return calls::pthread_setspecific.real(key, value);
  });
  ASSERT_EQ(0, thread.Start());
  EXPECT_TRUE(waitUntil([&] { return waiting.load(); }));
  EXPECT_EQ(0, thread.Terminate());
  thread.awaitEnd();
  EXPECT_EQ(1, cleared);
}

TEST(CkesThread, FailingTerminateGivesMinus112AndFinishesAllTheSame) {
  RunningThread running;
  calls::pthread_cancel.fail(ESRCH, 0);
  EXPECT_EQ(-112, running.thread.Terminate());
  EXPECT_EQ("-112 CkesThread::Terminate()", errorTrail());
  EXPECT_EQ(THREAD_FINISHED, running.thread.GetState());
}

TEST(CkesThread, TerminateOfACreatedThreadGivesMinus106) {
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.Terminate());
  EXPECT_EQ("-106 CkesThread::Terminate()", errorTrail());
  EXPECT_EQ(THREAD_CREATED, thread.GetState());
  thread.finish();
}

TEST(CkesThread, TerminateOfAFinishedThreadGivesMinus106) {
  BodyThread thread(nothing);
  thread.finish();
  EXPECT_EQ(-106, thread.Terminate());
}

TEST(CkesThread, TerminateOfAnInvalidThreadGivesMinus106) {
  breakThreads();
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.Terminate());
  EXPECT_EQ(THREAD_INVALID, thread.GetState());
}

TEST(CkesThread, GiveWayOfTheThreadItselfYields) {
  long result = -1;
  BodyThread* self = nullptr;
  BodyThread thread([&] { result = self->GiveWay(); });
  self = &thread;
  calls::sched_yield.watch();
  thread.finish();
  EXPECT_EQ(0, result);
  EXPECT_EQ(1, calls::sched_yield.count());
}

TEST(CkesThread, GiveWayFromAnotherThreadGivesMinus111) {
  RunningThread running;
  calls::sched_yield.watch();
  EXPECT_EQ(-111, running.thread.GiveWay());
  EXPECT_EQ("-111 CkesThread::GiveWay()", errorTrail());
  EXPECT_EQ(0, calls::sched_yield.count());
}

TEST(CkesThread, GiveWayOfACreatedThreadGivesMinus106) {
  BodyThread thread(nothing);
  EXPECT_EQ(-106, thread.GiveWay());
  EXPECT_EQ("-106 CkesThread::GiveWay()", errorTrail());
  thread.finish();
}

TEST(CkesThread, DestructionNeitherJoinsNorCancels) {
  calls::pthread_cancel.watch();
  {
    BodyThread thread(nothing);
    thread.finish();
    calls::pthread_join.watch();
  }
  EXPECT_EQ(0, calls::pthread_join.count());
  EXPECT_EQ(0, calls::pthread_cancel.count());
}

}  // namespace
}  // namespace armtest
