// A thread that ends between any two instructions of a join.
//
// ARM_JOIN_EVERY is the distance of the instructions that are tried.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>

#include "BodyThread.h"
#include "calls.h"
#include "counted.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"
#include "setting.h"
#include "shared.h"

namespace armtest {
namespace {

struct Moment {
  std::atomic<bool> may_end{false};
  std::atomic<bool> finished{false};  ///< the body has returned and the state says so
  std::atomic<bool> asked{false};     ///< the system has been asked to join
};

/// Joins a started thread, from a stop on, in the process that it is called in.
int joinFromAStopOn(Moment& moment, long (*join)(CkesThread&)) {
  BodyThread thread([&] { (void)waitUntil([&] { return moment.may_end.load(); }); });
  calls::pthread_setspecific.replace([&](pthread_key_t key, const void* value) {
    if (value == nullptr) moment.finished = true;
    return calls::pthread_setspecific.real(key, value);
  });
  calls::pthread_join.replace([&](pthread_t id, void** result) {
    moment.asked = true;
    return calls::pthread_join.real(id, result);
  });
  if (thread.Start() != 0) return 2;
  (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  (void)raise(SIGSTOP);
  return join(thread) == 0 ? 0 : 1;
}

/// Lets the joining thread alone do so many instructions, or fewer when it comes to ask the system.
bool step(pid_t child, const Moment& moment, unsigned long instructions) {
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return false;
  for (unsigned long i = 0; i < instructions && !moment.asked; ++i) {
    if (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0) return false;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return false;
  }
  return true;
}

/// The thread ends after one instruction and another, up to the one that asks the system.
void endAtAnyInstructionOf(long (*join)(CkesThread&)) {
  const uint32_t every = settingOr("ARM_JOIN_EVERY", 5);
  unsigned long instructions = 0;
  unsigned long moments = 0;
  for (bool asked = false; !asked; instructions += every, ++moments) {
    const Shared<Moment> moment;
    const pid_t child = forkChild([&] { return joinFromAStopOn(*moment.get(), join); });
    ASSERT_TRUE(step(child, *moment.get(), instructions));
    asked = moment->asked;
    moment->may_end = true;
    ASSERT_TRUE(waitUntil([&] { return moment->finished.load(); }));
    ASSERT_EQ(0, ptrace(PTRACE_CONT, child, nullptr, nullptr));
    ASSERT_EQ(0, exitCodeOf(child)) << "ended after instruction " << instructions;
  }
  EXPECT_LT(10UL, moments);
  counted("instructions of a join after which the thread ends", moments);
}

TEST(JoinMoments, JoinOfAThreadThatEndsAtAnyInstructionSucceeds) {
  endAtAnyInstructionOf([](CkesThread& thread) { return thread.Join(); });
}

TEST(JoinMoments, JoinAllOfAThreadThatEndsAtAnyInstructionSucceeds) {
  endAtAnyInstructionOf([](CkesThread& thread) {
    CkesThread* threads[] = {&thread};
    return CkesThreadLibrary::JoinAll(threads, 1);
  });
}

}  // namespace
}  // namespace armtest
