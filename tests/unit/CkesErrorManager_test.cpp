#include "diag/CkesErrorManager.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <thread>

#include "calls.h"
#include "diag/CkesErrorStack.h"
#include "errortrail.h"
#include "platform/CkesThreadLibrary.h"

namespace armtest {
namespace {

/// Runs a test's body in a thread that has no error stack.
template <typename Body>
void inThread(Body body) {
  ASSERT_EQ(0, CkesErrorManager::Initialize());
  std::thread(body).join();
}

/// Makes the initialization of the thread library fail.
void breakInitialization() {
  calls::pthread_key_create.fail(EAGAIN, 0);
}

/// Makes the storing of a stack fail, and frees the stack that is then left behind.
void breakStoring() {
  calls::pthread_setspecific.replace([](pthread_key_t, const void* stack) {
    delete static_cast<const CkesErrorStack*>(stack);
    return ENOMEM;
  });
}

TEST(CkesErrorManager, InitializationGivesTheCallingThreadAStack) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  long code = 1;
  char dump[64] = "";
  EXPECT_EQ(0, CkesErrorManager::GetError(&code));
  EXPECT_EQ(0, CkesErrorManager::GetStackDump(dump, sizeof dump));
  EXPECT_EQ(0, code);
  EXPECT_STREQ("Error code not set.\n", dump);
}

TEST(CkesErrorManager, SecondInitializationSucceeds) {
  EXPECT_EQ(0, CkesErrorManager::Initialize());
  calls::pthread_key_create.watch();
  EXPECT_EQ(0, CkesErrorManager::Initialize());
  EXPECT_EQ(0, calls::pthread_key_create.count());
}

TEST(CkesErrorManager, KeyThatCannotBeMadeIsPassedOnByInitialize) {
  calls::pthread_key_create.fail(EAGAIN, 0, 1);
  EXPECT_EQ(-103, CkesThreadLibrary::Initialize());
  EXPECT_EQ(-103, CkesErrorManager::Initialize());
}

TEST(CkesErrorManager, StackThatCannotBeStoredIsPassedOnByInitialize) {
  calls::pthread_setspecific.replace([](pthread_key_t key, const void* value) {
    // The first value is the thread's name.
    if (calls::pthread_setspecific.count() == 1) return calls::pthread_setspecific.real(key, value);
    delete static_cast<const CkesErrorStack*>(value);
    return ENOMEM;
  });
  EXPECT_EQ(-201, CkesThreadLibrary::Initialize());
}

// As it is when the process has a second C library, which knows nothing of this one's keys.
TEST(CkesErrorManager, ValueThatAnotherHasPutUnderTheKeyIsNoStackAndStaysUntouched) {
  pthread_key_t stack_key = 0;
  calls::pthread_key_create.replace([&](pthread_key_t* key, void (*destructor)(void*)) {
    const int result = calls::pthread_key_create.real(key, destructor);
    stack_key = *key;
    return result;
  });
  ASSERT_EQ(0, CkesErrorManager::SetError(-5, "error"));
  std::thread([stack_key] {
    std::array<unsigned char, sizeof(CkesErrorStack)> foreign;
    foreign.fill(0xA5);
    const auto before = foreign;
    ASSERT_EQ(0, pthread_setspecific(stack_key, foreign.data()));
    EXPECT_EQ(-203, CkesErrorManager::SetError(-7, "another error"));
    EXPECT_EQ(-203, CkesErrorManager::AddFunction("f"));
    EXPECT_EQ(-203, CkesErrorManager::UnregisterThread());
    EXPECT_EQ(before, foreign);
    EXPECT_EQ(foreign.data(), pthread_getspecific(stack_key));
  }).join();
  EXPECT_EQ("-5 error", errorTrail());
}

TEST(CkesErrorManager, FirstOperationInitializesTheThreadLibrary) {
  EXPECT_EQ(0, CkesErrorManager::SetError(-5, "error"));
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  EXPECT_EQ("-5 error", errorTrail());
}

TEST(CkesErrorManager, TrailIsErrorTextThenNames) {
  EXPECT_EQ(0, CkesErrorManager::SetError(-5, "A"));
  EXPECT_EQ(0, CkesErrorManager::AddFunction("f"));
  EXPECT_EQ(0, CkesErrorManager::AddFunction("g"));
  char dump[64] = "";
  EXPECT_EQ(0, CkesErrorManager::GetStackDump(dump, sizeof dump));
  EXPECT_STREQ("A\nf\ng\n", dump);
  long code = 0;
  EXPECT_EQ(0, CkesErrorManager::GetError(&code));
  EXPECT_EQ(-5, code);
}

TEST(CkesErrorManager, FiftiethNameGivesMinus202) {
  EXPECT_EQ(0, CkesErrorManager::SetError(-5, "A"));
  for (int i = 0; i < 49; ++i) EXPECT_EQ(0, CkesErrorManager::AddFunction("f"));
  EXPECT_EQ(-202, CkesErrorManager::AddFunction("f"));
  char dump[8] = "";
  EXPECT_EQ(0, CkesErrorManager::GetStackDump(dump, sizeof dump));
  EXPECT_STREQ("f\nf\nf\n", dump);
}

TEST(CkesErrorManager, EachThreadHasItsOwnStack) {
  EXPECT_EQ(0, CkesErrorManager::SetError(-5, "here"));
  std::thread([] {
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    EXPECT_EQ("0 Error code not set.", errorTrail());
    EXPECT_EQ(0, CkesErrorManager::SetError(-6, "elsewhere"));
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
  }).join();
  EXPECT_EQ("-5 here", errorTrail());
}

TEST(CkesErrorManager, SecondRegistrationGivesMinus200) {
  inThread([] {
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    EXPECT_EQ(-200, CkesErrorManager::RegisterThread());
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
  });
}

TEST(CkesErrorManager, SecondUnregistrationGivesMinus203) {
  inThread([] {
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
    EXPECT_EQ(-203, CkesErrorManager::UnregisterThread());
  });
}

TEST(CkesErrorManager, ThreadCanRegisterAnew) {
  inThread([] {
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    EXPECT_EQ(0, CkesErrorManager::SetError(-5, "error"));
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    EXPECT_EQ("0 Error code not set.", errorTrail());
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
  });
}

TEST(CkesErrorManager, ThreadWithoutAStackGetsMinus203FromEveryOperation) {
  inThread([] {
    long code = 1;
    char dump[] = "?";
    CkesErrorStack* stack = nullptr;
    CkesErrorStack copy;
    EXPECT_EQ(-203, CkesErrorManager::SetError(-5, "error"));
    EXPECT_EQ(-203, CkesErrorManager::AddFunction("f"));
    EXPECT_EQ(-203, CkesErrorManager::GetError(&code));
    EXPECT_EQ(-203, CkesErrorManager::GetStackDump(dump, sizeof dump));
    EXPECT_EQ(-203, CkesErrorManager::GetStack(&stack));
    EXPECT_EQ(-203, CkesErrorManager::GetStack(copy));
    EXPECT_EQ(-203, CkesErrorManager::UnregisterThread());
    EXPECT_EQ(1, code);
    EXPECT_STREQ("?", dump);
    EXPECT_EQ(nullptr, stack);
  });
}

TEST(CkesErrorManager, OperationsGiveMinus204WhenTheThreadLibraryCannotBeInitialized) {
  breakInitialization();
  long code = 1;
  char dump[] = "?";
  CkesErrorStack copy;
  EXPECT_EQ(-204, CkesErrorManager::SetError(-5, "error"));
  EXPECT_EQ(-204, CkesErrorManager::AddFunction("f"));
  EXPECT_EQ(-204, CkesErrorManager::GetError(&code));
  EXPECT_EQ(-204, CkesErrorManager::GetStackDump(dump, sizeof dump));
  EXPECT_EQ(-204, CkesErrorManager::GetStack(copy));
  EXPECT_EQ(-204, CkesErrorManager::RegisterThread());
}

TEST(CkesErrorManager, FailedInitializationOfTheThreadLibraryIsNotMadeUpForLater) {
  breakInitialization();
  EXPECT_EQ(-204, CkesErrorManager::SetError(-5, "error"));
  calls::pthread_key_create.watch();
  EXPECT_EQ(-204, CkesErrorManager::SetError(-5, "error"));
}

TEST(CkesErrorManager, UnregisteringDoesNotInitializeTheManager) {
  breakInitialization();
  EXPECT_EQ(-102, CkesErrorManager::UnregisterThread());
}

TEST(CkesErrorManager, StackThatCannotBeAllocatedGivesMinus1) {
  inThread([] {
    calls::nothrow_new.fail(nullptr, ENOMEM);
    EXPECT_EQ(-1, CkesErrorManager::RegisterThread());
    EXPECT_EQ(-203, CkesErrorManager::SetError(-5, "error"));
  });
}

TEST(CkesErrorManager, StackThatCannotBeStoredGivesMinus201AndIsLeftAllocated) {
  inThread([] {
    breakStoring();
    EXPECT_EQ(-201, CkesErrorManager::RegisterThread());
    EXPECT_EQ(-203, CkesErrorManager::SetError(-5, "error"));
  });
}

TEST(CkesErrorManager, KeyThatCannotBeClearedGivesMinus205) {
  inThread([] {
    EXPECT_EQ(0, CkesErrorManager::RegisterThread());
    calls::pthread_setspecific.fail(ENOMEM, 0);
    EXPECT_EQ(-205, CkesErrorManager::UnregisterThread());
    calls::pthread_setspecific.watch();
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
  });
}

TEST(CkesErrorManager, StackIsHandedOutAsItIs) {
  ASSERT_EQ(0, CkesErrorManager::SetError(-5, "error"));
  CkesErrorStack* stack = nullptr;
  EXPECT_EQ(0, CkesErrorManager::GetStack(&stack));
  stack->SetErrorCode(-6, "changed");
  EXPECT_EQ("-6 changed", errorTrail());
}

TEST(CkesErrorManager, CopyOfTheStackHasItsCodeAndTrail) {
  ASSERT_EQ(0, CkesErrorManager::SetError(-5, "error"));
  ASSERT_EQ(0, CkesErrorManager::AddFunction("f"));
  CkesErrorStack copy;
  EXPECT_EQ(0, CkesErrorManager::GetStack(copy));
  ASSERT_EQ(0, CkesErrorManager::SetError(-6, "later"));
  char dump[64] = "";
  copy.GetStackDump(dump, sizeof dump);
  EXPECT_EQ(-5, copy.GetErrorCode());
  EXPECT_STREQ("error\nf\n", dump);
}

TEST(CkesErrorManager, RecordReturnsTheCodeThatItRecords) {
  EXPECT_EQ(-5, CkesErrorManager::Record(-5, "error"));
  EXPECT_EQ("-5 error", errorTrail());
}

TEST(CkesErrorManager, RecordLeavesTheLastErrorAtASuccess) {
  EXPECT_EQ(-5, CkesErrorManager::Record(-5, "error"));
  EXPECT_EQ(0, CkesErrorManager::Record(0, "success"));
  EXPECT_EQ("-5 error", errorTrail());
}

TEST(CkesErrorManager, NothingIsPrinted) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, CkesErrorManager::SetError(-5, "error"));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace armtest
