#include "platform/CkesThreadLibrary.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>
#include <vector>

#include "BodyThread.h"
#include "calls.h"
#include "diag/CkesErrorManager.h"
#include "errortrail.h"
#include "process.h"

namespace armtest {
namespace {

/// Runs an operation as the process's first one: 0 when it succeeds and has initialized the
/// library, else its result.
template <typename Operation>
long asFirst(Operation operation) {
  const long result = operation();
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  return result;
}

/// The same when the library cannot be initialized.
template <typename Operation>
long asFirstInVain(Operation operation) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  return operation();
}

long createKey() {
  unsigned int key = 0;
  return CkesThreadLibrary::CreateNewKey(&key);
}

long setValue() {
  unsigned int key = 0;
  EXPECT_EQ(0, pthread_key_create(&key, nullptr));
  calls::pthread_key_create.fail(EAGAIN, 0);
  return CkesThreadLibrary::SetKeyValue(key, nullptr);
}

long getValue() {
  void* value = nullptr;
  return CkesThreadLibrary::GetKeyValue(0, &value);
}

long joinNobody() {
  return CkesThreadLibrary::JoinAll(nullptr, 0);
}

long currentName() {
  char name[64];
  return CkesThreadLibrary::GetCurrentThreadName(name);
}

long currentId() {
  unsigned long id = 0;
  return CkesThreadLibrary::GetCurrentThreadID(&id);
}

TEST(CkesThreadLibrary, InitializeSucceedsOnce) {
  EXPECT_FALSE(CkesThreadLibrary::IsInitialized());
  EXPECT_EQ(0, CkesThreadLibrary::Initialize());
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  EXPECT_EQ(-101, CkesThreadLibrary::Initialize());
}

TEST(CkesThreadLibrary, InitializeGivesTheCodeOfAKeyThatCannotBeMade) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  EXPECT_EQ(-103, CkesThreadLibrary::Initialize());
}

TEST(CkesThreadLibrary, InitializeGivesTheCodeOfTheErrorManager) {
  // The second key is the error manager's.
  calls::pthread_key_create.fail(EAGAIN, 0, 1, 1);
  EXPECT_EQ(-103, CkesThreadLibrary::Initialize());
}

TEST(CkesThreadLibrary, StaysMarkedInitializedAfterAFailedInitialization) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  EXPECT_EQ(-103, CkesThreadLibrary::Initialize());
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  EXPECT_EQ(-101, CkesThreadLibrary::Initialize());
}

TEST(CkesThreadLibrary, InitializeGivesTheCallingThreadItsNameAndErrorStack) {
  EXPECT_EQ(0, CkesThreadLibrary::Initialize());
  EXPECT_STREQ("Main Thread", CkesThreadLibrary::GetThreadName());
  EXPECT_EQ(-200, CkesErrorManager::NewThread());
}

TEST(CkesThreadLibrary, CreateNewKeyInitializesFirst) {
  EXPECT_EQ(0, asFirst(createKey));
}
TEST(CkesThreadLibrary, GetKeyValueInitializesFirst) {
  EXPECT_EQ(0, asFirst(getValue));
}
TEST(CkesThreadLibrary, JoinAllInitializesFirst) {
  EXPECT_EQ(0, asFirst(joinNobody));
}
TEST(CkesThreadLibrary, GetCurrentThreadNameInitializesFirst) {
  EXPECT_EQ(0, asFirst(currentName));
}
TEST(CkesThreadLibrary, GetCurrentThreadIDInitializesFirst) {
  EXPECT_EQ(0, asFirst(currentId));
}
TEST(CkesThreadLibrary, GiveWayInitializesFirst) {
  EXPECT_EQ(0, asFirst(CkesThreadLibrary::GiveWay));
}

TEST(CkesThreadLibrary, SameThreadIDsInitializesFirst) {
  EXPECT_TRUE(CkesThreadLibrary::SameThreadIDs(7, 7));
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
  EXPECT_STREQ("Main Thread", CkesThreadLibrary::GetThreadName());
}

TEST(CkesThreadLibrary, SameThreadIDsComparesAlsoWhenInitializationFails) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  EXPECT_FALSE(CkesThreadLibrary::SameThreadIDs(7, 8));
  EXPECT_TRUE(CkesThreadLibrary::SameThreadIDs(7, 7));
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
}

TEST(CkesThreadLibrary, SetKeyValueInitializesFirst) {
  unsigned int key = 0;
  ASSERT_EQ(0, pthread_key_create(&key, nullptr));
  EXPECT_EQ(0, asFirst([&] { return CkesThreadLibrary::SetKeyValue(key, nullptr); }));
}

TEST(CkesThreadLibrary, CreateNewKeyGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(createKey));
}
TEST(CkesThreadLibrary, SetKeyValueGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, setValue());
}
TEST(CkesThreadLibrary, GetKeyValueGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(getValue));
}
TEST(CkesThreadLibrary, JoinAllGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(joinNobody));
}
TEST(CkesThreadLibrary, GetCurrentThreadNameGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(currentName));
}
TEST(CkesThreadLibrary, GetCurrentThreadIDGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(currentId));
}
TEST(CkesThreadLibrary, GiveWayGivesMinus102WhenInitializationFails) {
  EXPECT_EQ(-102, asFirstInVain(CkesThreadLibrary::GiveWay));
}

TEST(CkesThreadLibrary, KeyThatCannotBeMadeGivesMinus103AndIsNotRecorded) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  calls::pthread_key_create.fail(EAGAIN, 0);
  EXPECT_EQ(-103, createKey());
  EXPECT_EQ("0 Error code not set.", errorTrail());
}

TEST(CkesThreadLibrary, KeysAreMadeWithoutADestructor) {
  bool without = false;
  calls::pthread_key_create.replace([&](pthread_key_t* key, void (*destructor)(void*)) {
    without = destructor == nullptr;
    return calls::pthread_key_create.real(key, destructor);
  });
  EXPECT_EQ(0, createKey());
  EXPECT_TRUE(without);
}

// As it is when the process has a second C library: both number their keys from 0 and keep the
// values in the same place.
TEST(CkesThreadLibrary, KeyThatHasAValueAlreadyIsNotUsed) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  int foreign = 0;
  pthread_key_t taken = 0;
  calls::pthread_key_create.replace([&](pthread_key_t* key, void (*destructor)(void*)) {
    const int result = calls::pthread_key_create.real(key, destructor);
    if (calls::pthread_key_create.count() > 1) return result;
    taken = *key;
    return pthread_setspecific(taken, &foreign);
  });
  unsigned int key = 0;
  EXPECT_EQ(0, CkesThreadLibrary::CreateNewKey(&key));
  EXPECT_NE(taken, key);
  EXPECT_EQ(2, calls::pthread_key_create.count());
  EXPECT_EQ(&foreign, pthread_getspecific(taken));
}

TEST(CkesThreadLibrary, ValuesBelongToOneThread) {
  unsigned int key = 0;
  ASSERT_EQ(0, CkesThreadLibrary::CreateNewKey(&key));
  int object = 0;
  EXPECT_EQ(0, CkesThreadLibrary::SetKeyValue(key, &object));
  void* elsewhere = &object;
  std::thread([&] { EXPECT_EQ(0, CkesThreadLibrary::GetKeyValue(key, &elsewhere)); }).join();
  void* here = nullptr;
  EXPECT_EQ(0, CkesThreadLibrary::GetKeyValue(key, &here));
  EXPECT_EQ(&object, here);
  EXPECT_EQ(nullptr, elsewhere);
}

TEST(CkesThreadLibrary, ValueNeverSetIsNull) {
  unsigned int key = 0;
  ASSERT_EQ(0, CkesThreadLibrary::CreateNewKey(&key));
  void* value = &key;
  EXPECT_EQ(0, CkesThreadLibrary::GetKeyValue(key, &value));
  EXPECT_EQ(nullptr, value);
}

TEST(CkesThreadLibrary, SetKeyValueOfAnUnknownKeyGivesMinus104) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  EXPECT_EQ(-104, CkesThreadLibrary::SetKeyValue(1000000, nullptr));
  EXPECT_EQ("-104 CkesThreadLibrary::SetKeyValue()", errorTrail());
}

TEST(CkesThreadLibrary, SetKeyValueThatFailsOtherwiseGivesMinus105) {
  unsigned int key = 0;
  ASSERT_EQ(0, CkesThreadLibrary::CreateNewKey(&key));
  calls::pthread_setspecific.fail(ENOMEM, 0);
  EXPECT_EQ(-105, CkesThreadLibrary::SetKeyValue(key, nullptr));
  EXPECT_EQ("-105 CkesThreadLibrary::SetKeyValue()", errorTrail());
}

TEST(CkesThreadLibrary, MainThreadIsCalledMainThread) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  char name[64] = "";
  EXPECT_EQ(0, CkesThreadLibrary::GetCurrentThreadName(name));
  EXPECT_STREQ("Main Thread", name);
}

TEST(CkesThreadLibrary, NameOfAThreadNeverNamedGivesMinus114) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  std::thread([] {
    ASSERT_EQ(0, CkesErrorManager::RegisterThread());
    char name[64] = "unchanged";
    EXPECT_EQ(-114, CkesThreadLibrary::GetCurrentThreadName(name));
    EXPECT_STREQ("unchanged", name);
    EXPECT_EQ("-114 CkesThreadLibrary::GetCurrentThreadName()", errorTrail());
    EXPECT_EQ(0, CkesErrorManager::UnregisterThread());
  }).join();
}

TEST(CkesThreadLibrary, GetThreadNameIsNullOnAThreadNeverNamed) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  const char* name = "";
  std::thread([&] { name = CkesThreadLibrary::GetThreadName(); }).join();
  EXPECT_EQ(nullptr, name);
}

TEST(CkesThreadLibrary, GetThreadNameIsNullAndInitializesNothingBeforeInitialization) {
  EXPECT_EQ(nullptr, CkesThreadLibrary::GetThreadName());
  EXPECT_FALSE(CkesThreadLibrary::IsInitialized());
}

TEST(CkesThreadLibrary, SetThreadNameKeepsThePointerAndNotACopy) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  char name[] = "before";
  EXPECT_EQ(0, CkesThreadLibrary::SetThreadName(name));
  std::snprintf(name, sizeof name, "after");
  EXPECT_EQ(name, CkesThreadLibrary::GetThreadName());
  char copy[64] = "";
  EXPECT_EQ(0, CkesThreadLibrary::GetCurrentThreadName(copy));
  EXPECT_STREQ("after", copy);
}

TEST(CkesThreadLibrary, SetThreadNameFailsAsSetKeyValueDoes) {
  ASSERT_EQ(0, CkesThreadLibrary::Initialize());
  calls::pthread_setspecific.fail(ENOMEM, 0);
  char name[] = "name";
  EXPECT_EQ(-105, CkesThreadLibrary::SetThreadName(name));
}

TEST(CkesThreadLibrary, CurrentThreadIDIsThePosixThread) {
  unsigned long id = 0;
  EXPECT_EQ(0, CkesThreadLibrary::GetCurrentThreadID(&id));
  EXPECT_EQ(pthread_self(), id);
}

TEST(CkesThreadLibrary, SameThreadIDsComparesEveryByte) {
  EXPECT_TRUE(CkesThreadLibrary::SameThreadIDs(7, 7));
  EXPECT_FALSE(CkesThreadLibrary::SameThreadIDs(7, 8));
  const unsigned long highest = 1UL << (8 * sizeof(unsigned long) - 1);
  EXPECT_FALSE(CkesThreadLibrary::SameThreadIDs(7, 7 | highest));
}

TEST(CkesThreadLibrary, GiveWayYieldsTheProcessor) {
  calls::sched_yield.watch();
  EXPECT_EQ(0, CkesThreadLibrary::GiveWay());
  EXPECT_EQ(1, calls::sched_yield.count());
}

/// Threads that run until they are joined, and the order in which that happens.
class JoinOrder {
 public:
  JoinOrder() {
    calls::pthread_join.replace([this](pthread_t thread, void** result) {
      order_.push_back(thread);
      joining_ = thread;
      return calls::pthread_join.real(thread, result);
    });
  }

  void untilJoined() {
    EXPECT_TRUE(waitUntil([this] { return joining_ == pthread_self(); }));
  }

  const std::vector<pthread_t>& order() const { return order_; }

 private:
  std::vector<pthread_t> order_;
  std::atomic<pthread_t> joining_{0};
};

TEST(CkesThreadLibrary, JoinAllJoinsInTheOrderOfTheArray) {
  JoinOrder joins;
  BodyThread first([&] { joins.untilJoined(); });
  BodyThread second([&] { joins.untilJoined(); });
  ASSERT_EQ(0, first.Start());
  ASSERT_EQ(0, second.Start());
  CkesThread* threads[] = {&second, &first};
  EXPECT_EQ(0, CkesThreadLibrary::JoinAll(threads, 2));
  EXPECT_EQ((std::vector<pthread_t>{second.posixThread(), first.posixThread()}), joins.order());
}

TEST(CkesThreadLibrary, JoinAllStopsAtTheFirstThreadThatCannotBeJoined) {
  JoinOrder joins;
  BodyThread good([&] { joins.untilJoined(); });
  calls::pthread_create.fail(EAGAIN, 0);
  BodyThread invalid([] {});
  ASSERT_EQ(0, good.Start());
  CkesThread* threads[] = {&invalid, &good};
  EXPECT_EQ(-106, CkesThreadLibrary::JoinAll(threads, 2));
  EXPECT_TRUE(joins.order().empty());
  EXPECT_EQ(0, good.Join());
}

TEST(CkesThreadLibrary, JoinAllAddsItsNameToTheTrailOfAFailedJoin) {
  calls::pthread_create.fail(EAGAIN, 0);
  BodyThread invalid([] {});
  CkesThread* threads[] = {&invalid};
  EXPECT_EQ(-106, CkesThreadLibrary::JoinAll(threads, 1));
  EXPECT_EQ("-106 CkesThread::Join() < CkesThreadLibrary::JoinAll()", errorTrail());
}

}  // namespace
}  // namespace armtest
