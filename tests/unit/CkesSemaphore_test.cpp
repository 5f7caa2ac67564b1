#include "platform/CkesSemaphore.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "calls.h"
#include "errortrail.h"
#include "files.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"
#include "sleepers.h"
#include "tracing.h"

namespace armtest {
namespace {

char semaphore_name[] = "/var/kelp/semaphore";

using Texts = std::vector<std::string>;

int count() {
  return semaphoreValue(setAt(semaphore_name), 0);
}
int privateLock() {
  return semaphoreValue(setAt(semaphore_name), 1);
}

// ---- create -------------------------------------------------------------------------------------

TEST(CkesSemaphore, MaximumOfZeroIsRefused) {
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 0).IsInitialized());
}

TEST(CkesSemaphore, InitialCountAboveTheMaximumIsRefused) {
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 5, 4).IsInitialized());
}

TEST(CkesSemaphore, MaximumOf32767IsRefused) {
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 32767).IsInitialized());
}

TEST(CkesSemaphore, MaximumOf32766IsAccepted) {
  EXPECT_TRUE(CkesSemaphore(semaphore_name, 0, 32766).IsInitialized());
}

TEST(CkesSemaphore, MaximumOfOneIsAccepted) {
  EXPECT_TRUE(CkesSemaphore(semaphore_name, 1, 1).IsInitialized());
}

TEST(CkesSemaphore, RefusedArgumentsCreateNothing) {
  const CkesSemaphore semaphore(semaphore_name, 5, 4);
  EXPECT_FALSE(exists(semaphore_name));
}

TEST(CkesSemaphore, RefusedSemaphoreRemovesNoSetWhenItIsDestroyed) {
  // The first set of a machine has identifier 0.
  const int set = makeSet(semaphore_name, 3);
  { const CkesSemaphore semaphore(semaphore_name, 5, 4); }
  { const CkesSemaphore semaphore(5, 4); }
  EXPECT_TRUE(setExists(set));
}

TEST(CkesSemaphore, CreationMakesTheNameFileAndASetOfThree) {
  const CkesSemaphore semaphore(semaphore_name, 3, 7);
  ASSERT_TRUE(semaphore.IsInitialized());
  EXPECT_TRUE(exists(semaphore_name));
  const int set = setAt(semaphore_name, 1);
  EXPECT_EQ(3, semaphoreValue(set, 0));
  EXPECT_EQ(0, semaphoreValue(set, 1));
  EXPECT_EQ(7, semaphoreValue(set, 2));
  EXPECT_EQ(-1, semaphoreValue(set, 3));
}

TEST(CkesSemaphore, CreationAsksForASetOpenToAll) {
  int asked = 0;
  calls::semget.replace([&](key_t key, int semaphores, int flags) {
    asked = flags;
    return calls::semget.real(key, semaphores, flags);
  });
  const CkesSemaphore semaphore(semaphore_name, 3, 7);
  EXPECT_EQ(0x3B6, asked);
}

TEST(CkesSemaphore, CreationOverAnExistingSetOfThreeResetsItsValues) {
  const CkesSemaphore first(semaphore_name, 3, 7);
  const int set = setAt(semaphore_name);
  setSemaphore(set, 1, 1);
  const CkesSemaphore second(semaphore_name, 1, 4);
  EXPECT_TRUE(second.IsInitialized());
  EXPECT_EQ(set, setAt(semaphore_name));
  EXPECT_EQ(1, semaphoreValue(set, 0));
  EXPECT_EQ(0, semaphoreValue(set, 1));
  EXPECT_EQ(4, semaphoreValue(set, 2));
}

TEST(CkesSemaphore, FirstOwnersDestructionRemovesATakenOverSetUnderEveryone) {
  auto* first = new CkesSemaphore(semaphore_name, 3, 7);
  CkesSemaphore second(semaphore_name, 1, 4);
  delete first;
  EXPECT_EQ(-1, setAt(semaphore_name));
  EXPECT_EQ(-141, second.Wait(0));
}

TEST(CkesSemaphore, StaleSetOfFewerSemaphoresIsReplaced) {
  const int stale = makeSet(semaphore_name, 1);
  const CkesSemaphore semaphore(semaphore_name, 3, 7);
  EXPECT_TRUE(semaphore.IsInitialized());
  EXPECT_FALSE(setExists(stale));
  EXPECT_EQ(7, semaphoreValue(setAt(semaphore_name), 2));
}

TEST(CkesSemaphore, LargerSetIsTakenOver) {
  const int larger = makeSet(semaphore_name, 5);
  const CkesSemaphore semaphore(semaphore_name, 3, 7);
  EXPECT_TRUE(semaphore.IsInitialized());
  EXPECT_EQ(larger, setAt(semaphore_name));
}

TEST(CkesSemaphore, IsNotInitializedWithoutItsNameFile) {
  char name[] = "/var/kelp/absent/semaphore";
  EXPECT_FALSE(CkesSemaphore(name, 0, 1).IsInitialized());
}

TEST(CkesSemaphore, IsNotInitializedWithoutItsKey) {
  calls::ftok.fail(-1, EACCES);
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 1).IsInitialized());
}

TEST(CkesSemaphore, IsNotInitializedWhenNoStaleSetCanBeFound) {
  calls::semget.fail(-1, ENOSPC);
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 1).IsInitialized());
  EXPECT_EQ(2, calls::semget.count());
}

TEST(CkesSemaphore, SetIsAskedForOnlyOnceMoreAfterAStaleOne) {
  const int stale = makeSet(semaphore_name, 1);
  int number = 0;
  calls::semget.replace([&](key_t, int, int) { return ++number == 2 ? stale : -1; });
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 1).IsInitialized());
  EXPECT_EQ(3, number);
}

TEST(CkesSemaphore, RemovalOfAStaleSetMayFail) {
  ASSERT_GE(makeSet(semaphore_name, 1), 0);
  calls::semctl.fail(-1, EPERM, 0, 1);
  EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 1).IsInitialized());
  EXPECT_EQ(1, calls::semctl.count());
}

TEST(CkesSemaphore, AnyValueThatCannotBeSetLeavesItNotInitialized) {
  for (int good = 0; good < 3; ++good) {
    calls::semctl.fail(-1, EPERM, good);
    EXPECT_FALSE(CkesSemaphore(semaphore_name, 0, 1).IsInitialized()) << good;
  }
}

TEST(CkesSemaphore, FailedCreationUndoesNothing) {
  calls::semctl.fail(-1, EPERM);
  { const CkesSemaphore semaphore(semaphore_name, 0, 1); }
  EXPECT_TRUE(setExists(setAt(semaphore_name)));
}

TEST(CkesSemaphore, ValuesAreSetInOrder) {
  Texts set;
  calls::semctl.replace([&](int id, int number, int command, TSemArgument argument) {
    if (command == SETVAL)
      set.push_back(std::to_string(number) + "=" + std::to_string(argument.val));
    return calls::semctl.real(id, number, command, argument);
  });
  const CkesSemaphore semaphore(semaphore_name, 3, 7);
  EXPECT_EQ((Texts{"0=3", "1=0", "2=7"}), set);
}

TEST(CkesSemaphore, UnnamedSemaphoreIsNeverInitialized) {
  CkesSemaphore semaphore(0, 1);
  EXPECT_FALSE(semaphore.IsInitialized());
  EXPECT_EQ(-140, semaphore.TryWait());
}

TEST(CkesSemaphore, UnnamedSemaphoreAsksForNoSet) {
  calls::semget.watch();
  const CkesSemaphore semaphore(0, 1);
  EXPECT_EQ(0, calls::semget.count());
}

// ---- open ---------------------------------------------------------------------------------------

TEST(CkesSemaphore, OpenerSharesTheCount) {
  const CkesSemaphore creator(semaphore_name, 2, 7);
  CkesSemaphore opener(semaphore_name);
  ASSERT_TRUE(opener.IsInitialized());
  EXPECT_EQ(0, opener.Wait(0));
  EXPECT_EQ(1, count());
}

TEST(CkesSemaphore, OpenerLearnsTheMaximumFromTheSet) {
  const CkesSemaphore creator(semaphore_name, 2, 3);
  CkesSemaphore opener(semaphore_name);
  EXPECT_EQ(-144, opener.Post(2));
  EXPECT_EQ(0, opener.Post(1));
}

TEST(CkesSemaphore, OpeningANameNeverCreatedIsNotInitialized) {
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_FALSE(semaphore.IsInitialized());
}

TEST(CkesSemaphore, OpeningANameFileWithoutASetIsNotInitialized) {
  writeContent(semaphore_name, "");
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_FALSE(semaphore.IsInitialized());
}

TEST(CkesSemaphore, OpeningASetOfTwoIsNotInitialized) {
  ASSERT_GE(makeSet(semaphore_name, 2), 0);
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_FALSE(semaphore.IsInitialized());
}

TEST(CkesSemaphore, MaximumThatCannotBeReadIsNotChecked) {
  const CkesSemaphore creator(semaphore_name, 0, 3);
  calls::semctl.fail(-1, EACCES, 0, 1);
  CkesSemaphore opener(semaphore_name);
  EXPECT_TRUE(opener.IsInitialized());
  EXPECT_EQ(-144, opener.Post(1));
}

TEST(CkesSemaphore, OpenAsksForThreeSemaphoresWithoutFlags) {
  const CkesSemaphore creator(semaphore_name, 0, 3);
  Texts asked;
  calls::semget.replace([&](key_t key, int semaphores, int flags) {
    asked.push_back(std::to_string(semaphores) + " " + std::to_string(flags));
    return calls::semget.real(key, semaphores, flags);
  });
  const CkesSemaphore opener(semaphore_name);
  EXPECT_EQ((Texts{"3 0"}), asked);
}

TEST(CkesSemaphore, OpenTracesTheMissingFile) {
  startTracing();
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_EQ((Texts{"CkesSemaphore_LINUX::implOpen ftok call failed[2] for "
                   "i_Name[/var/kelp/semaphore]\n"}),
            traceTexts());
}

TEST(CkesSemaphore, OpenTracesTheMissingSet) {
  writeContent(semaphore_name, "");
  calls::ftok.fail(4711, 0);
  startTracing();
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_EQ((Texts{"CkesSemaphore_LINUX::implOpen semget call failed[2] for sem_key[4711]\n"}),
            traceTexts());
}

TEST(CkesSemaphore, NothingIsTracedWithoutADebugRun) {
  const CkesSemaphore semaphore(semaphore_name);
  EXPECT_FALSE(exists(TRACE_FILE));
}

// ---- wait and try -------------------------------------------------------------------------------

TEST(CkesSemaphore, WaitTakesOneUnit) {
  CkesSemaphore semaphore(semaphore_name, 3, 7);
  EXPECT_EQ(0, semaphore.Wait(0));
  EXPECT_EQ(2, count());
}

TEST(CkesSemaphore, WaitIgnoresItsTimeLimitAndBlocksUntilAPost) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  long result = -1;
  std::thread waiter([&] { result = semaphore.Wait(10); });
  EXPECT_TRUE(sleeperComes(setAt(semaphore_name), 0));
  EXPECT_EQ(0, semaphore.Post(1));
  waiter.join();
  EXPECT_EQ(0, result);
  EXPECT_EQ(0, count());
}

TEST(CkesSemaphore, WaitIsTheSameSingleOperationForEveryTimeLimit) {
  CkesSemaphore semaphore(semaphore_name, 3, 7);
  Texts operations;
  calls::recordSemops(operations);
  EXPECT_EQ(0, semaphore.Wait(-1));
  EXPECT_EQ(0, semaphore.Wait(0));
  EXPECT_EQ(0, semaphore.Wait(10));
  EXPECT_EQ((Texts{"{0,-1,0}", "{0,-1,0}", "{0,-1,0}"}), operations);
}

TEST(CkesSemaphore, WaitInOneProcessEndsWithAPostInAnother) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  const pid_t child = forkChild([] {
    CkesSemaphore opener(semaphore_name);
    return opener.Wait(0) == 0 ? 42 : 1;
  });
  EXPECT_TRUE(sleeperComes(setAt(semaphore_name), 0));
  EXPECT_EQ(0, semaphore.Post(1));
  EXPECT_EQ(42, exitCodeOf(child));
}

TEST(CkesSemaphore, InterruptedWaitIsRepeated) {
  CkesSemaphore semaphore(semaphore_name, 1, 7);
  calls::semop.fail(-1, EINTR, 0, 2);
  EXPECT_EQ(0, semaphore.Wait(0));
  EXPECT_EQ(3, calls::semop.count());
}

TEST(CkesSemaphore, WaitThatFailsOtherwiseGivesMinus141) {
  CkesSemaphore semaphore(semaphore_name, 1, 7);
  calls::semop.fail(-1, EIDRM);
  EXPECT_EQ(-141, semaphore.Wait(0));
  EXPECT_EQ("-141 CkesSemaphore::Wait()", errorTrail());
}

TEST(CkesSemaphore, SetRemovedUnderAWaiterGivesMinus141) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  const int set = setAt(semaphore_name);
  long result = 0;
  std::thread waiter([&] { result = semaphore.Wait(0); });
  EXPECT_TRUE(sleeperComes(set, 0));
  (void)calls::semctl.real(set, 0, IPC_RMID, {});
  waiter.join();
  EXPECT_EQ(-141, result);
}

TEST(CkesSemaphore, TryWaitTakesOneUnit) {
  CkesSemaphore semaphore(semaphore_name, 3, 7);
  Texts operations;
  calls::recordSemops(operations);
  EXPECT_EQ(0, semaphore.TryWait());
  EXPECT_EQ((Texts{"{0,-1,2048}"}), operations);
  EXPECT_EQ(2, count());
}

TEST(CkesSemaphore, TryWaitOnAZeroCountGivesMinus142AtOnce) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  EXPECT_EQ(-142, semaphore.TryWait());
  EXPECT_EQ("-142 CkesSemaphore::TryWait()", errorTrail());
}

TEST(CkesSemaphore, InterruptedTryWaitIsNotRepeatedAndGivesMinus141) {
  CkesSemaphore semaphore(semaphore_name, 1, 7);
  calls::semop.fail(-1, EINTR, 0, 1);
  EXPECT_EQ(-141, semaphore.TryWait());
  EXPECT_EQ(1, calls::semop.count());
  EXPECT_EQ("-141 CkesSemaphore::TryWait()", errorTrail());
}

// ---- post ---------------------------------------------------------------------------------------

TEST(CkesSemaphore, PostAddsItsUnitsUnderThePrivateLock) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  Texts operations;
  calls::recordSemops(operations);
  EXPECT_EQ(0, semaphore.Post(3));
  EXPECT_EQ((Texts{"{1,0,0}{1,1,4096}", "{0,3,0}", "{1,-1,6144}"}), operations);
  EXPECT_EQ(3, count());
}

TEST(CkesSemaphore, PostThatExactlyReachesTheMaximumSucceeds) {
  CkesSemaphore semaphore(semaphore_name, 2, 7);
  EXPECT_EQ(0, semaphore.Post(5));
  EXPECT_EQ(7, count());
}

TEST(CkesSemaphore, PostAtTheMaximumGivesMinus144AndAddsNothing) {
  CkesSemaphore semaphore(semaphore_name, 7, 7);
  EXPECT_EQ(-144, semaphore.Post(1));
  EXPECT_EQ("-144 CkesSemaphore::Post(long)", errorTrail());
  EXPECT_EQ(7, count());
}

TEST(CkesSemaphore, PostPastTheMaximumAddsNotEvenAPart) {
  CkesSemaphore semaphore(semaphore_name, 5, 7);
  EXPECT_EQ(-144, semaphore.Post(3));
  EXPECT_EQ(5, count());
}

TEST(CkesSemaphore, RefusedPostGivesThePrivateLockBack) {
  CkesSemaphore semaphore(semaphore_name, 7, 7);
  EXPECT_EQ(-144, semaphore.Post(1));
  EXPECT_EQ(0, privateLock());
}

TEST(CkesSemaphore, PostOfTheLargestNumberGivesMinus144) {
  CkesSemaphore semaphore(semaphore_name, 7, 7);
  EXPECT_EQ(-144, semaphore.Post(LONG_MAX));
  EXPECT_EQ(7, count());
}

TEST(CkesSemaphore, InterruptedPrivateLockIsTakenAgain) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  calls::semop.fail(-1, EINTR, 0, 2);
  EXPECT_EQ(0, semaphore.Post(1));
  EXPECT_EQ(1, count());
}

TEST(CkesSemaphore, PostWithoutThePrivateLockGivesMinus143) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  calls::semop.fail(-1, EINVAL);
  EXPECT_EQ(-143, semaphore.Post(1));
  EXPECT_EQ("-143 CkesSemaphore::Post(long)", errorTrail());
  EXPECT_EQ(1, calls::semop.count());
}

TEST(CkesSemaphore, InterruptedAdditionGivesMinus143AndThePrivateLockBack) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  calls::semop.fail(-1, EINTR, 1, 1);
  EXPECT_EQ(-143, semaphore.Post(1));
  EXPECT_EQ(0, privateLock());
  EXPECT_EQ(0, count());
}

TEST(CkesSemaphore, ResultOfThePrivateUnlockIsNotLookedAt) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  calls::semop.fail(-1, EINTR, 2, 1);
  EXPECT_EQ(0, semaphore.Post(1));
  EXPECT_EQ(1, count());
}

TEST(CkesSemaphore, PostOfAnotherProcessIsWaitedFor) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  setSemaphore(setAt(semaphore_name), 1, 1);
  const pid_t child = forkChild([] {
    CkesSemaphore opener(semaphore_name);
    return opener.Post(1) == 0 ? 42 : 1;
  });
  EXPECT_TRUE(sleeperForZeroComes(setAt(semaphore_name), 1));
  EXPECT_EQ(0, count());
  setSemaphore(setAt(semaphore_name), 1, 0);
  EXPECT_EQ(42, exitCodeOf(child));
  EXPECT_EQ(1, count());
}

TEST(CkesSemaphore, ProcessKilledInsidePostLeavesThePrivateLockFree) {
  CkesSemaphore semaphore(semaphore_name, 0, 7);
  const pid_t child = forkChild([] {
    CkesSemaphore opener(semaphore_name);
    calls::semop.replace([](int set, sembuf* operations, size_t number) {
      if (operations->sem_num == 0) raise(SIGKILL);
      return calls::semop.real(set, operations, number);
    });
    return static_cast<int>(opener.Post(1));
  });
  EXPECT_EQ(128 + SIGKILL, exitCodeOf(child));
  EXPECT_EQ(0, privateLock());
  EXPECT_EQ(0, semaphore.Post(1));
}

TEST(CkesSemaphore, PostersOfSeveralProcessesNeverPassTheMaximum) {
  const CkesSemaphore semaphore(semaphore_name, 0, 10);
  const auto post = [] {
    CkesSemaphore opener(semaphore_name);
    int added = 0;
    for (int i = 0; i < 20; ++i) added += opener.Post(1) == 0 ? 1 : 0;
    return added;
  };
  const pid_t first = forkChild(post);
  const pid_t second = forkChild(post);
  EXPECT_EQ(10, exitCodeOf(first) + exitCodeOf(second));
  EXPECT_EQ(10, count());
}

// ---- an object that is not initialized ----------------------------------------------------------

TEST(CkesSemaphore, WaitOnAnObjectNotInitializedGivesMinus140) {
  CkesSemaphore semaphore(semaphore_name);
  EXPECT_EQ(-140, semaphore.Wait(10));
  EXPECT_EQ("-140 CkesSemaphore::Wait()", errorTrail());
}

TEST(CkesSemaphore, TryWaitOnAnObjectNotInitializedGivesMinus140) {
  CkesSemaphore semaphore(semaphore_name);
  EXPECT_EQ(-140, semaphore.TryWait());
  EXPECT_EQ("-140 CkesSemaphore::TryWait()", errorTrail());
}

TEST(CkesSemaphore, PostToAnObjectNotInitializedGivesMinus140) {
  CkesSemaphore semaphore(semaphore_name);
  EXPECT_EQ(-140, semaphore.Post(1));
  EXPECT_EQ("-140 CkesSemaphore::Post(long)", errorTrail());
}

// ---- destruction and names ----------------------------------------------------------------------

TEST(CkesSemaphore, CreatorRemovesTheSetButNotTheNameFile) {
  { const CkesSemaphore semaphore(semaphore_name, 0, 7); }
  EXPECT_EQ(-1, setAt(semaphore_name));
  EXPECT_TRUE(exists(semaphore_name));
}

TEST(CkesSemaphore, OpenerNeverRemovesTheSet) {
  const CkesSemaphore creator(semaphore_name, 0, 7);
  { const CkesSemaphore opener(semaphore_name); }
  EXPECT_TRUE(setExists(setAt(semaphore_name)));
}

TEST(CkesSemaphore, NameIsCutTo127Characters) {
  std::string name = "/var/kelp/" + std::string(200, 'n');
  const CkesSemaphore semaphore(name.data(), 0, 7);
  EXPECT_TRUE(semaphore.IsInitialized());
  EXPECT_TRUE(exists(name.substr(0, 127)));
}

TEST(CkesSemaphore, OpenerCutsTheNameTo127CharactersToo) {
  std::string name = "/var/kelp/" + std::string(200, 'n');
  std::string cut = name.substr(0, 127);
  const CkesSemaphore creator(cut.data(), 0, 7);
  EXPECT_TRUE(CkesSemaphore(name.data()).IsInitialized());
}

TEST(CkesSemaphore, NameCarriesTheAgentsSuffix) {
  setenv("ARM_AGENT_PREFIX", "agent2", 1);
  const CkesSemaphore semaphore(semaphore_name, 0, 7);
  EXPECT_TRUE(exists("/var/kelp/semaphore.agent2"));
  EXPECT_FALSE(exists(semaphore_name));
}

}  // namespace
}  // namespace armtest
