#include "platform/CkesSharedMemory.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
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

constexpr const char* SEGMENT_FILE = "/var/kelp/segment";
constexpr unsigned long SIZE = 64;

using Texts = std::vector<std::string>;

void* const NO_ADDRESS = reinterpret_cast<void*>(-1);

/// A process that creates the segment, as nobody's owner, and lives until it is ended.
class CreatorProcess {
 public:
  CreatorProcess() {
    int ready[2];
    EXPECT_EQ(0, pipe(ready));
    EXPECT_EQ(0, pipe(end_));
    child_ = forkChild([&] {
      const CkesSharedMemory segment(SEGMENT_FILE, SIZE, false);
      char byte = segment.GetInitResult() == 0 ? 'y' : 'n';
      close(end_[1]);
      return write(ready[1], &byte, 1) == 1 && read(end_[0], &byte, 1) == 0 ? 0 : 1;
    });
    char made = 'n';
    EXPECT_EQ(1, read(ready[0], &made, 1));
    EXPECT_EQ('y', made);
  }
  ~CreatorProcess() { close(end_[0]); }
  CreatorProcess(const CreatorProcess&) = delete;
  CreatorProcess& operator=(const CreatorProcess&) = delete;

  void exitNormally() {
    close(end_[1]);
    EXPECT_EQ(0, exitCodeOf(child_));
  }

  void beKilled() {
    kill(child_, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, exitCodeOf(child_));
    close(end_[1]);
  }

 private:
  int end_[2] = {-1, -1};
  pid_t child_ = -1;
};

/// The bytes of a segment.
char* bytes(const CkesSharedMemory& segment) {
  return static_cast<char*>(segment.GetAddress());
}

/// The segment with the bytes 0, 1, 2, ...
struct NumberedSegment : CkesSharedMemory {
  NumberedSegment() : CkesSharedMemory(SEGMENT_FILE, SIZE, true) {
    for (unsigned long i = 0; i < SIZE; ++i) bytes(*this)[i] = static_cast<char>(i);
  }
};

// ---- open ---------------------------------------------------------------------------------------

TEST(CkesSharedMemory, OpeningANameWithoutItsFileGivesMinus250) {
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-250, segment.GetInitResult());
  EXPECT_FALSE(segment.IsInitialized());
}

TEST(CkesSharedMemory, OpeningBeforeTheCreatorMadeTheSetGivesMinus251) {
  writeContent(SEGMENT_FILE, "");
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-251, segment.GetInitResult());
  EXPECT_FALSE(segment.IsInitialized());
}

TEST(CkesSharedMemory, OpeningBeforeTheCreatorMadeTheSegmentGivesMinus251) {
  ASSERT_GE(makeSet(SEGMENT_FILE, 2), 0);
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-251, segment.GetInitResult());
}

TEST(CkesSharedMemory, OpeningASetOfOneSemaphoreGivesMinus251) {
  ASSERT_GE(makeSet(SEGMENT_FILE, 1), 0);
  ASSERT_GE(makeSegment(SEGMENT_FILE, SIZE), 0);
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-251, segment.GetInitResult());
}

TEST(CkesSharedMemory, OpeningWithTheCreatorAliveGivesZero) {
  CreatorProcess creator;
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(segment.IsInitialized());
  EXPECT_TRUE(segment.CreatorAlive());
  creator.exitNormally();
}

TEST(CkesSharedMemory, OpeningAfterTheCreatorExitedGivesMinus263AndCountsAsOpen) {
  CreatorProcess().exitNormally();
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-263, segment.GetInitResult());
  EXPECT_TRUE(segment.IsInitialized());
  EXPECT_FALSE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, OpeningAfterTheCreatorWasKilledGivesMinus263) {
  CreatorProcess().beKilled();
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-263, segment.GetInitResult());
}

TEST(CkesSharedMemory, SegmentOfADeadCreatorCanBeLockedAndRead) {
  CreatorProcess().exitNormally();
  CkesSharedMemory segment(SEGMENT_FILE, false);
  char byte = 'x';
  EXPECT_EQ(0, segment.Read(0, 1, &byte));
  EXPECT_EQ('\0', byte);
  EXPECT_EQ(0, segment.Lock());
  EXPECT_EQ(0, segment.Unlock());
}

TEST(CkesSharedMemory, OpenersSeeTheCreatorDie) {
  CreatorProcess creator;
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_TRUE(segment.CreatorAlive());
  creator.beKilled();
  EXPECT_FALSE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, SetThatIsNotYetInitialisedOpensWithoutALivingCreator) {
  ASSERT_GE(makeSet(SEGMENT_FILE, 2), 0);
  ASSERT_GE(makeSegment(SEGMENT_FILE, SIZE), 0);
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(segment.IsInitialized());
  EXPECT_FALSE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, LivenessAboveTwoOpensWithALivingCreator) {
  const int set = makeSet(SEGMENT_FILE, 2);
  setSemaphore(set, 1, 3);
  ASSERT_GE(makeSegment(SEGMENT_FILE, SIZE), 0);
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, CreatorIsNotAliveWhenTheSetIsGone) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_TRUE(segment.CreatorAlive());
  (void)calls::semctl.real(setAt(SEGMENT_FILE), 0, IPC_RMID, {});
  EXPECT_FALSE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, OpenerTakesTheSegmentsOwnSize) {
  ASSERT_GE(makeSet(SEGMENT_FILE, 2), 0);
  ASSERT_GE(makeSegment(SEGMENT_FILE, 12345), 0);
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(12345UL, segment.GetSize());
}

TEST(CkesSharedMemory, SizeOfAFailedOpenIsZero) {
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(0UL, segment.GetSize());
  EXPECT_EQ(nullptr, segment.GetAddress());
}

TEST(CkesSharedMemory, OpenAsksForTwoSemaphoresAndAtLeastOneByteWithoutFlags) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  Texts asked;
  calls::semget.replace([&](key_t key, int count, int flags) {
    asked.push_back("semget " + std::to_string(count) + " " + std::to_string(flags));
    return calls::semget.real(key, count, flags);
  });
  calls::shmget.replace([&](key_t key, size_t size, int flags) {
    asked.push_back("shmget " + std::to_string(size) + " " + std::to_string(flags));
    return calls::shmget.real(key, size, flags);
  });
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ((Texts{"semget 2 0", "shmget 1 0"}), asked);
}

TEST(CkesSharedMemory, FailedOpenLeavesTheSegmentAttachedWhileTheObjectLives) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::semctl.fail(-1, EACCES);
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-251, segment.GetInitResult());
  EXPECT_EQ(2UL, attachments(segmentAt(SEGMENT_FILE)));
}

TEST(CkesSharedMemory, FailedOpenByAnOwnerRemovesNothing) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  const int set = setAt(SEGMENT_FILE);
  const int segment = segmentAt(SEGMENT_FILE);
  calls::semctl.fail(-1, EACCES);
  { const CkesSharedMemory opener(SEGMENT_FILE, true); }
  EXPECT_TRUE(setExists(set));
  EXPECT_TRUE(segmentExists(segment));
}

// ---- what an open traces ------------------------------------------------------------------------

constexpr const char* ENTER = "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/segment\n";

/// The result of opening the segment, and the records traced meanwhile.
struct TracedOpen {
  TracedOpen() {
    startTracing();
    result = CkesSharedMemory(SEGMENT_FILE, false).GetInitResult();
    texts = traceTexts();
  }
  long result = 0;
  Texts texts;
};

TEST(CkesSharedMemory, OpenTracesItsBeginAndEnd) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  const TracedOpen open;
  EXPECT_EQ(0, open.result);
  EXPECT_EQ((Texts{ENTER, "CkesSharedMemory_UNIX::implOpen EXIT - name = /var/kelp/segment\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheMissingFileWithTwoBlanksBeforeFtok) {
  const TracedOpen open;
  EXPECT_EQ(-250, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR -  ftok(name, IPC_MEM_ID) failed where "
                   "name = /var/kelp/segment, errno = 2\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheSetsKeyThatCannotBeMadeWithOneBlank) {
  writeContent(SEGMENT_FILE, "");
  calls::ftok.fail(-1, EACCES, 1);
  const TracedOpen open;
  EXPECT_EQ(-250, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - ftok(name, IPC_SEM_ID) failed where "
                   "name = /var/kelp/segment, errno = 13\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenMakesTheSegmentsKeyBeforeTheSets) {
  writeContent(SEGMENT_FILE, "");
  std::vector<int> projects;
  calls::ftok.replace([&](const char* path, int project) {
    projects.push_back(project);
    return calls::ftok.real(path, project);
  });
  const CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ((std::vector<int>{2, 1}), projects);
}

TEST(CkesSharedMemory, OpenTracesTheMissingSet) {
  writeContent(SEGMENT_FILE, "");
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - semget(sem_key, 2, 0) failed where "
                   "errno = 2\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheMissingSegment) {
  ASSERT_GE(makeSet(SEGMENT_FILE, 2), 0);
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - shmget(mem_key, 1, 0) failed where "
                   "errno = 2\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheSegmentThatCannotBeAttached) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::shmat.fail(NO_ADDRESS, EACCES);
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - shmat(VMemory, 0, 0) failed where "
                   "errno = 13\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTakesANullAddressForAFailure) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::shmat.fail(nullptr, ENOMEM);
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - shmat(VMemory, 0, 0) failed where "
                   "errno = 12\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheSizeThatCannotBeRead) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::shmctl.fail(-1, EACCES);
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - shmctl(VMemory, IPC_STAT, &info) "
                   "failed where errno = 13\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesTheLivenessThatCannotBeRead) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::semctl.fail(-1, EACCES, 0, 1);
  const TracedOpen open;
  EXPECT_EQ(-251, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - semctl(VSemaphore, 1, GETVAL) failed "
                   "where errno = 13, sem_val = -1\n"}),
            open.texts);
}

TEST(CkesSharedMemory, OpenTracesADeadCreatorAsAFailedReadOfItsLiveness) {
  const CkesSharedMemory creator(SEGMENT_FILE, SIZE, true);
  calls::semctl.fail(1, EAGAIN, 0, 1);
  const TracedOpen open;
  EXPECT_EQ(-263, open.result);
  EXPECT_EQ((Texts{ENTER,
                   "CkesSharedMemory_UNIX::implOpen - ERROR - semctl(VSemaphore, 1, GETVAL) failed "
                   "where errno = 11, sem_val = 1\n"}),
            open.texts);
}

TEST(CkesSharedMemory, NothingIsTracedWithoutADebugRun) {
  { const CkesSharedMemory missing(SEGMENT_FILE, false); }
  { const CkesSharedMemory created(SEGMENT_FILE, SIZE, true); }
  EXPECT_FALSE(exists(TRACE_FILE));
}

// ---- create -------------------------------------------------------------------------------------

TEST(CkesSharedMemory, CreationMakesTheNameFileAndAZeroedSegment) {
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(segment.IsInitialized());
  EXPECT_TRUE(exists(SEGMENT_FILE));
  EXPECT_EQ(SIZE, segment.GetSize());
  EXPECT_EQ(std::string(SIZE, '\0'), std::string(bytes(segment), SIZE));
}

TEST(CkesSharedMemory, SetIsProject1AndSegmentProject2OfTheNameFile) {
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_TRUE(setExists(setAt(SEGMENT_FILE, 1)));
  EXPECT_TRUE(segmentExists(segmentAt(SEGMENT_FILE, 2)));
}

TEST(CkesSharedMemory, CreatedSetIsFreeAndItsCreatorAlive) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, semaphoreValue(setAt(SEGMENT_FILE), 0));
  EXPECT_EQ(2, semaphoreValue(setAt(SEGMENT_FILE), 1));
  EXPECT_TRUE(segment.CreatorAlive());
}

TEST(CkesSharedMemory, LivenessIsOnePermanentAndOneUndoneIncrement) {
  Texts operations;
  calls::recordSemops(operations);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ((Texts{"{1,1,0}{1,1,4096}"}), operations);
}

TEST(CkesSharedMemory, CreationAsksForObjectsOpenToAllAndNotForExclusiveOnes) {
  int set_flags = 0;
  int segment_flags = 0;
  calls::semget.replace([&](key_t key, int count, int flags) {
    set_flags = flags;
    return calls::semget.real(key, count, flags);
  });
  calls::shmget.replace([&](key_t key, size_t size, int flags) {
    segment_flags = flags;
    return calls::shmget.real(key, size, flags);
  });
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0x3B6, set_flags);
  EXPECT_EQ(0x3B6, segment_flags);
}

TEST(CkesSharedMemory, CreationReplacesAnOldSetWhoeverMadeIt) {
  const int old = makeSet(SEGMENT_FILE, 2);
  setSemaphore(old, 0, 1);
  setSemaphore(old, 1, 1);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_FALSE(setExists(old));
  EXPECT_EQ(0, semaphoreValue(setAt(SEGMENT_FILE), 0));
  EXPECT_EQ(2, semaphoreValue(setAt(SEGMENT_FILE), 1));
}

TEST(CkesSharedMemory, CreationReplacesTheSetOfALivingCreator) {
  CkesSharedMemory first(SEGMENT_FILE, SIZE, false);
  const int old = setAt(SEGMENT_FILE);
  const CkesSharedMemory second(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, second.GetInitResult());
  EXPECT_FALSE(setExists(old));
  EXPECT_FALSE(first.CreatorAlive());
}

TEST(CkesSharedMemory, CreationTakesAnUninitialisedSetAsItIs) {
  const int fresh = makeSet(SEGMENT_FILE, 2);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(fresh, setAt(SEGMENT_FILE));
  EXPECT_EQ(2, semaphoreValue(fresh, 1));
}

TEST(CkesSharedMemory, OpenersOfAReplacedSetSeeTheirLocksFail) {
  const CkesSharedMemory first(SEGMENT_FILE, SIZE, false);
  CkesSharedMemory opener(SEGMENT_FILE, false);
  const CkesSharedMemory second(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(-261, opener.Lock());
  EXPECT_EQ(-262, opener.Unlock());
}

TEST(CkesSharedMemory, LargerSegmentIsReusedAndZeroedOverTheSizeAskedFor) {
  const int old = makeSegment(SEGMENT_FILE, 4096);
  void* address = shmat(old, nullptr, 0);
  std::memset(address, 'x', 4096);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_EQ(old, segmentAt(SEGMENT_FILE));
  EXPECT_EQ(SIZE, segment.GetSize());
  EXPECT_EQ(std::string(SIZE, '\0') + "x", std::string(bytes(segment), SIZE + 1));
  EXPECT_EQ(0, shmdt(address));
}

TEST(CkesSharedMemory, SmallerSegmentMakesCreationFailWithMinus252) {
  ASSERT_GE(makeSegment(SEGMENT_FILE, SIZE - 1), 0);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(-252, segment.GetInitResult());
  EXPECT_FALSE(segment.IsInitialized());
}

TEST(CkesSharedMemory, FailedCreationUndoesNothing) {
  const int segment = makeSegment(SEGMENT_FILE, SIZE - 1);
  { const CkesSharedMemory created(SEGMENT_FILE, SIZE, true); }
  EXPECT_TRUE(segmentExists(segment));
  EXPECT_EQ(2, semaphoreValue(setAt(SEGMENT_FILE), 1));
}

// ---- what a creation traces ---------------------------------------------------------------------

constexpr const char* ENTERING =
    "entering CkesSharedMemory::implCreate(const char* name, unsigned long size) - name = "
    "/var/kelp/segment, size = 64\n";

/// The result of creating the segment, and the records traced meanwhile.
struct TracedCreation {
  TracedCreation() {
    startTracing();
    const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
    result = segment.GetInitResult();
    texts = traceTexts();
  }
  long result = 0;
  Texts texts;
};

TEST(CkesSharedMemory, CreationTracesItsBeginAndEnd) {
  const TracedCreation creation;
  EXPECT_EQ(0, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "exiting CkesSharedMemory::implCreate(const char* name, unsigned long size) - "
                   "name = /var/kelp/segment, size = 64\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheFileThatCannotBeMade) {
  startTracing();
  const CkesSharedMemory segment("/var/kelp/absent/segment", SIZE, true);
  EXPECT_EQ(-252, segment.GetInitResult());
  EXPECT_EQ((Texts{"entering CkesSharedMemory::implCreate(const char* name, unsigned long size) - "
                   "name = /var/kelp/absent/segment, size = 64\n",
                   "CkesSharedMemory::implCreate() - ERROR - fopen(name, \"w\") failed to create "
                   "where errno = 2\n"}),
            traceTexts());
}

TEST(CkesSharedMemory, CreationTracesTheSetsKeyThatCannotBeMade) {
  calls::ftok.fail(-1, EACCES);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - ftok(name, IPC_SEM_ID) where errno = "
                   "13\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheSetThatCannotBeMade) {
  calls::semget.fail(-1, ENOSPC);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - semget(sem_key, 2, 0666 | IPC_CREAT) "
                   "where errno = 28\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheLivenessThatCannotBeRead) {
  calls::semctl.fail(-1, EACCES);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - semctl(VSemaphore, 1, GETVAL) where "
                   "errno = 13\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheOldSetThatCannotBeRemoved) {
  setSemaphore(makeSet(SEGMENT_FILE, 2), 1, 1);
  calls::semctl.fail(-1, EPERM, 1);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - semctl(VSemaphore, 0, IPC_RMID) where "
                   "errno = 1\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheLivenessThatCannotBeRaised) {
  calls::semop.fail(-1, ERANGE);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - semop(VSemaphore, op_init, 2) where "
                   "errno = 34\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheSegmentsKeyThatCannotBeMade) {
  calls::ftok.fail(-1, EACCES, 1);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - ftok(name, IPC_MEM_ID) where errno = "
                   "13, name = /var/kelp/segment\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationNamesIpcExclInItsTraceAlthoughItIsNotPassed) {
  ASSERT_GE(makeSegment(SEGMENT_FILE, SIZE - 1), 0);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - shmget(mem_key, size, 0666 | "
                   "IPC_CREAT | IPC_EXCL) where errno = 22, size = 64\n"}),
            creation.texts);
}

TEST(CkesSharedMemory, CreationTracesTheSegmentThatCannotBeAttached) {
  calls::shmat.fail(NO_ADDRESS, EACCES);
  const TracedCreation creation;
  EXPECT_EQ(-252, creation.result);
  EXPECT_EQ((Texts{ENTERING,
                   "CkesSharedMemory::implCreate() - ERROR - shmat(VMemory, 0, 0) where errno = "
                   "13\n"}),
            creation.texts);
}

// ---- lock ---------------------------------------------------------------------------------------

TEST(CkesSharedMemory, LockIsOneStepOfTwoRecordsAndUnlockDoesNotWait) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  Texts operations;
  calls::recordSemops(operations);
  EXPECT_EQ(0, segment.Lock());
  EXPECT_EQ(0, segment.Unlock());
  EXPECT_EQ((Texts{"{0,0,0}{0,1,4096}", "{0,-1,6144}"}), operations);
}

TEST(CkesSharedMemory, HeldLockIsSemaphore0AtOne) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, segment.Lock());
  EXPECT_EQ(1, semaphoreValue(setAt(SEGMENT_FILE), 0));
  EXPECT_EQ(0, segment.Unlock());
  EXPECT_EQ(0, semaphoreValue(setAt(SEGMENT_FILE), 0));
}

TEST(CkesSharedMemory, AnotherProcessWaitsForTheLock) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  ASSERT_EQ(0, segment.Lock());
  const pid_t child = forkChild([] {
    CkesSharedMemory opener(SEGMENT_FILE, false);
    return opener.Lock() == 0 ? *bytes(opener) : 1;
  });
  EXPECT_TRUE(sleeperForZeroComes(setAt(SEGMENT_FILE), 0));
  *bytes(segment) = 42;
  EXPECT_EQ(0, segment.Unlock());
  EXPECT_EQ(42, exitCodeOf(child));
}

TEST(CkesSharedMemory, LockIsNotReentrant) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  const pid_t child = forkChild([] {
    CkesSharedMemory opener(SEGMENT_FILE, false);
    return opener.Lock() == 0 && opener.Lock() == 0 ? 0 : 1;
  });
  EXPECT_TRUE(sleeperForZeroComes(setAt(SEGMENT_FILE), 0));
  kill(child, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, exitCodeOf(child));
}

TEST(CkesSharedMemory, LockOfAKilledProcessIsReleased) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  const pid_t child = forkChild([] {
    CkesSharedMemory opener(SEGMENT_FILE, false);
    return opener.Lock() == 0 ? pause() : 1;
  });
  EXPECT_TRUE(waitUntil([] { return semaphoreValue(setAt(SEGMENT_FILE), 0) == 1; }));
  kill(child, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, exitCodeOf(child));
  EXPECT_EQ(0, semaphoreValue(setAt(SEGMENT_FILE), 0));
  EXPECT_EQ(0, segment.Lock());
  EXPECT_EQ(0, segment.Unlock());
}

TEST(CkesSharedMemory, LockKeepsThreadsOfOneProcessApart) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  int* counter = static_cast<int*>(segment.GetAddress());
  const auto count = [&] {
    for (int i = 0; i < 500; ++i) {
      EXPECT_EQ(0, segment.Lock());
      ++*counter;
      EXPECT_EQ(0, segment.Unlock());
    }
  };
  std::thread first(count);
  std::thread second(count);
  first.join();
  second.join();
  EXPECT_EQ(1000, *counter);
}

TEST(CkesSharedMemory, InterruptedLockIsRepeated) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  calls::semop.fail(-1, EINTR, 0, 2);
  EXPECT_EQ(0, segment.Lock());
  EXPECT_EQ(3, calls::semop.count());
  EXPECT_EQ(0, segment.Unlock());
}

TEST(CkesSharedMemory, InterruptedUnlockIsNotRepeatedAndGivesMinus262) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  ASSERT_EQ(0, segment.Lock());
  calls::semop.fail(-1, EINTR, 0, 1);
  EXPECT_EQ(-262, segment.Unlock());
  EXPECT_EQ(1, calls::semop.count());
  EXPECT_EQ("-262 CkesSharedMemory::Unlock()", errorTrail());
}

TEST(CkesSharedMemory, UnlockOfAFreeLockFailsAtOnceWithMinus262) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(-262, segment.Unlock());
  EXPECT_EQ("-262 CkesSharedMemory::Unlock()", errorTrail());
}

TEST(CkesSharedMemory, LockOfARemovedSetGivesMinus261) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  (void)calls::semctl.real(setAt(SEGMENT_FILE), 0, IPC_RMID, {});
  EXPECT_EQ(-261, segment.Lock());
  EXPECT_EQ("-261 CkesSharedMemory::Lock()", errorTrail());
}

TEST(CkesSharedMemory, SetRemovedUnderASleeperGivesMinus261) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  ASSERT_EQ(0, segment.Lock());
  const int set = setAt(SEGMENT_FILE);
  long result = 0;
  std::thread sleeper([&] { result = segment.Lock(); });
  EXPECT_TRUE(sleeperForZeroComes(set, 0));
  (void)calls::semctl.real(set, 0, IPC_RMID, {});
  sleeper.join();
  EXPECT_EQ(-261, result);
}

TEST(CkesSharedMemory, FailedLockIsTraced) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  const int set = setAt(SEGMENT_FILE);
  calls::semop.fail(-1, EINVAL);
  startTracing();
  EXPECT_EQ(-261, segment.Lock());
  EXPECT_EQ((Texts{"CkesSharedMemory::implLock: semop on VSemaphore[" + std::to_string(set) +
                   "] failed [-1] errno[22]\n"}),
            traceTexts());
}

TEST(CkesSharedMemory, FailedUnlockIsNotTraced) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  startTracing();
  EXPECT_EQ(-262, segment.Unlock());
  EXPECT_FALSE(exists(TRACE_FILE));
}

// ---- read and write -----------------------------------------------------------------------------

TEST(CkesSharedMemory, WhatIsWrittenIsReadByAnotherProcess) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  char text[] = "text";
  EXPECT_EQ(0, segment.Write(8, sizeof text, text));
  const pid_t child = forkChild([] {
    CkesSharedMemory opener(SEGMENT_FILE, false);
    char buffer[5] = "";
    return opener.Read(8, sizeof buffer, buffer) == 0 ? std::strcmp("text", buffer) : 1;
  });
  EXPECT_EQ(0, exitCodeOf(child));
}

TEST(CkesSharedMemory, ReadAndWriteHoldTheLockMeanwhile) {
  CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  Texts operations;
  calls::recordSemops(operations);
  char byte = 0;
  EXPECT_EQ(0, segment.Read(0, 1, &byte));
  EXPECT_EQ(0, segment.Write(0, 1, &byte));
  EXPECT_EQ((Texts{"{0,0,0}{0,1,4096}", "{0,-1,6144}", "{0,0,0}{0,1,4096}", "{0,-1,6144}"}),
            operations);
}

TEST(CkesSharedMemory, ReadUpToTheEndIsNotClipped) {
  NumberedSegment segment;
  char buffer[4] = "";
  EXPECT_EQ(0, segment.Read(SIZE - 4, 4, buffer));
  EXPECT_EQ(std::string("\x3c\x3d\x3e\x3f"), std::string(buffer, 4));
}

TEST(CkesSharedMemory, ReadOnePastTheEndIsClippedToOneByteShortOfIt) {
  NumberedSegment segment;
  char buffer[6] = "-----";
  EXPECT_EQ(0, segment.Read(SIZE - 4, 5, buffer));
  EXPECT_EQ(std::string("\x3c\x3d\x3e--"), std::string(buffer));
}

TEST(CkesSharedMemory, ClippedReadRecordsNothing) {
  NumberedSegment segment;
  char buffer[5] = "";
  EXPECT_EQ(0, segment.Read(SIZE - 4, 5, buffer));
  EXPECT_EQ("0 Error code not set.", errorTrail());
}

TEST(CkesSharedMemory, ReadClippedToNothingGivesMinus253) {
  NumberedSegment segment;
  char buffer[2] = "-";
  EXPECT_EQ(-253, segment.Read(SIZE - 1, 2, buffer));
  EXPECT_EQ("-253 CkesSharedMemory::Read()", errorTrail());
  EXPECT_STREQ("-", buffer);
}

TEST(CkesSharedMemory, WriteUpToTheEndIsNotClipped) {
  NumberedSegment segment;
  char text[] = "abcd";
  EXPECT_EQ(0, segment.Write(SIZE - 4, 4, text));
  EXPECT_EQ("abcd", std::string(bytes(segment) + SIZE - 4, 4));
  EXPECT_EQ("0 Error code not set.", errorTrail());
}

TEST(CkesSharedMemory, ClippedWriteRecordsMinus255AndIsDoneOneByteShortOfTheEnd) {
  NumberedSegment segment;
  char text[] = "abcde";
  EXPECT_EQ(0, segment.Write(SIZE - 4, 5, text));
  EXPECT_EQ("-255 CkesSharedMemory::Write()", errorTrail());
  EXPECT_EQ("abc\x3f", std::string(bytes(segment) + SIZE - 4, 4));
}

TEST(CkesSharedMemory, WriteClippedToNothingGivesMinus254) {
  NumberedSegment segment;
  char text[] = "ab";
  EXPECT_EQ(-254, segment.Write(SIZE - 1, 2, text));
  EXPECT_EQ("-254 CkesSharedMemory::Write()", errorTrail());
  EXPECT_EQ('\x3f', bytes(segment)[SIZE - 1]);
}

TEST(CkesSharedMemory, RequestClippedToNothingDoesNotLock) {
  NumberedSegment segment;
  calls::semop.watch();
  char buffer[2] = "";
  EXPECT_EQ(-253, segment.Read(SIZE - 1, 2, buffer));
  EXPECT_EQ(-254, segment.Write(SIZE - 1, 2, buffer));
  EXPECT_EQ(0, calls::semop.count());
}

TEST(CkesSharedMemory, OffsetPastTheEndTouchesNothing) {
  NumberedSegment segment;
  char buffer[2] = "-";
  EXPECT_EQ(-253, segment.Read(SIZE + 1, 1, buffer));
  EXPECT_EQ(-254, segment.Write(SIZE + 1, 1, buffer));
  EXPECT_EQ(-253, segment.Read(1UL << 30, 1, buffer));
  EXPECT_STREQ("-", buffer);
}

TEST(CkesSharedMemory, RequestThatWrapsAroundTouchesNothing) {
  NumberedSegment segment;
  char buffer[2] = "-";
  EXPECT_EQ(-253, segment.Read(ULONG_MAX, 2, buffer));
  EXPECT_EQ(-254, segment.Write(ULONG_MAX, 2, buffer));
  EXPECT_STREQ("-", buffer);
}

TEST(CkesSharedMemory, LengthThatWrapsAroundIsClipped) {
  NumberedSegment segment;
  char buffer[5] = "----";
  EXPECT_EQ(0, segment.Read(SIZE - 4, ULONG_MAX, buffer));
  EXPECT_EQ(std::string("\x3c\x3d\x3e-"), std::string(buffer));
}

TEST(CkesSharedMemory, ReadWithoutTheLockGivesItsCodeAndReadsNothing) {
  NumberedSegment segment;
  calls::semop.fail(-1, EINVAL);
  char byte = '-';
  EXPECT_EQ(-261, segment.Read(0, 1, &byte));
  EXPECT_EQ("-261 CkesSharedMemory::Read()", errorTrail());
  EXPECT_EQ('-', byte);
}

TEST(CkesSharedMemory, WriteWithoutTheLockGivesItsCodeAndWritesNothing) {
  NumberedSegment segment;
  calls::semop.fail(-1, EINVAL);
  char byte = 'x';
  EXPECT_EQ(-261, segment.Write(1, 1, &byte));
  EXPECT_EQ("-261 CkesSharedMemory::Write()", errorTrail());
  EXPECT_EQ('\x01', bytes(segment)[1]);
}

TEST(CkesSharedMemory, ReadReturnsTheResultOfItsUnlock) {
  NumberedSegment segment;
  calls::semop.fail(-1, EINVAL, 1);
  char byte = '-';
  EXPECT_EQ(-262, segment.Read(1, 1, &byte));
  EXPECT_EQ("-262 CkesSharedMemory::Read()", errorTrail());
  EXPECT_EQ('\x01', byte);
}

TEST(CkesSharedMemory, WriteReturnsTheResultOfItsUnlock) {
  NumberedSegment segment;
  calls::semop.fail(-1, EINVAL, 1);
  char byte = 'x';
  EXPECT_EQ(-262, segment.Write(1, 1, &byte));
  EXPECT_EQ("-262 CkesSharedMemory::Write()", errorTrail());
  EXPECT_EQ('x', bytes(segment)[1]);
}

// ---- an object that is not initialized ----------------------------------------------------------

TEST(CkesSharedMemory, ReadFromAnObjectNotInitializedGivesMinus260) {
  CkesSharedMemory segment(SEGMENT_FILE, false);
  char byte = 0;
  EXPECT_EQ(-260, segment.Read(0, 1, &byte));
  EXPECT_EQ("-260 CkesSharedMemory::Read()", errorTrail());
}

TEST(CkesSharedMemory, WriteToAnObjectNotInitializedGivesMinus260) {
  CkesSharedMemory segment(SEGMENT_FILE, false);
  char byte = 0;
  EXPECT_EQ(-260, segment.Write(0, 1, &byte));
  EXPECT_EQ("-260 CkesSharedMemory::Write()", errorTrail());
}

TEST(CkesSharedMemory, LockOfAnObjectNotInitializedGivesMinus260) {
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-260, segment.Lock());
  EXPECT_EQ("-260 CkesSharedMemory::Lock()", errorTrail());
}

TEST(CkesSharedMemory, UnlockOfAnObjectNotInitializedGivesMinus260) {
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_EQ(-260, segment.Unlock());
  EXPECT_EQ("-260 CkesSharedMemory::Unlock()", errorTrail());
}

TEST(CkesSharedMemory, CreatorOfAnObjectNotInitializedIsNotAlive) {
  CkesSharedMemory segment(SEGMENT_FILE, false);
  EXPECT_FALSE(segment.CreatorAlive());
}

// ---- destruction --------------------------------------------------------------------------------

TEST(CkesSharedMemory, OwnerRemovesSetAndSegmentButNotTheNameFile) {
  int set = -1;
  int segment = -1;
  {
    const CkesSharedMemory owner(SEGMENT_FILE, SIZE, true);
    set = setAt(SEGMENT_FILE);
    segment = segmentAt(SEGMENT_FILE);
  }
  EXPECT_FALSE(setExists(set));
  EXPECT_FALSE(segmentExists(segment));
  EXPECT_TRUE(exists(SEGMENT_FILE));
}

TEST(CkesSharedMemory, NonOwnerDetachesOnly) {
  { const CkesSharedMemory creator(SEGMENT_FILE, SIZE, false); }
  EXPECT_TRUE(setExists(setAt(SEGMENT_FILE)));
  EXPECT_TRUE(segmentExists(segmentAt(SEGMENT_FILE)));
  EXPECT_EQ(0UL, attachments(segmentAt(SEGMENT_FILE)));
}

TEST(CkesSharedMemory, OpenerThatOwnsRemovesSetAndSegment) {
  { const CkesSharedMemory creator(SEGMENT_FILE, SIZE, false); }
  { const CkesSharedMemory owner(SEGMENT_FILE, true); }
  EXPECT_EQ(-1, setAt(SEGMENT_FILE));
  EXPECT_EQ(-1, segmentAt(SEGMENT_FILE));
}

// ---- the name -----------------------------------------------------------------------------------

TEST(CkesSharedMemory, NameIsCutTo124Characters) {
  const std::string name = "/var/kelp/" + std::string(200, 'n');
  const CkesSharedMemory segment(name.c_str(), SIZE, true);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(exists(name.substr(0, 124)));
}

TEST(CkesSharedMemory, OpenerCutsTheNameTo124CharactersToo) {
  const std::string name = "/var/kelp/" + std::string(200, 'n');
  const CkesSharedMemory creator(name.substr(0, 124).c_str(), SIZE, true);
  const CkesSharedMemory opener(name.c_str(), false);
  EXPECT_EQ(0, opener.GetInitResult());
}

TEST(CkesSharedMemory, NameCarriesTheAgentsSuffix) {
  setenv("ARM_AGENT_PREFIX", "agent2", 1);
  const CkesSharedMemory segment(SEGMENT_FILE, SIZE, true);
  EXPECT_EQ(0, segment.GetInitResult());
  EXPECT_TRUE(exists("/var/kelp/segment.agent2"));
  EXPECT_FALSE(exists(SEGMENT_FILE));
}

// ---- recovery by key ----------------------------------------------------------------------------

constexpr key_t KEY = 4711;

TEST(CkesSharedMemory, GetAndRemoveOfAMissingSegmentGivesZero) {
  EXPECT_EQ(0, getAndRemoveSharedMemory(KEY, 1));
}

TEST(CkesSharedMemory, GetAndRemoveRemovesTheSegment) {
  const int segment = shmget(KEY, SIZE, IPC_CREAT | 0600);
  EXPECT_EQ(0, getAndRemoveSharedMemory(KEY, SIZE));
  EXPECT_FALSE(segmentExists(segment));
}

TEST(CkesSharedMemory, GetAndRemoveLeavesASegmentThatIsSmallerThanAskedFor) {
  const int segment = shmget(KEY, SIZE, IPC_CREAT | 0600);
  EXPECT_EQ(0, getAndRemoveSharedMemory(KEY, SIZE + 1));
  EXPECT_TRUE(segmentExists(segment));
}

TEST(CkesSharedMemory, GetAndRemoveGivesTheErrnoOfAFailedRemoval) {
  ASSERT_GE(shmget(KEY, SIZE, IPC_CREAT | 0600), 0);
  calls::shmctl.fail(-1, EPERM);
  EXPECT_EQ(EPERM, getAndRemoveSharedMemory(KEY, SIZE));
}

TEST(CkesSharedMemory, GetAndRemoveAsksWithItsSizeAndRightsForAll) {
  Texts asked;
  calls::shmget.replace([&](key_t key, size_t size, int flags) {
    asked.push_back(std::to_string(key) + " " + std::to_string(size) + " " + std::to_string(flags));
    return -1;
  });
  EXPECT_EQ(0, getAndRemoveSharedMemory(KEY, SIZE));
  EXPECT_EQ((Texts{"4711 64 438"}), asked);
}

}  // namespace
}  // namespace armtest
