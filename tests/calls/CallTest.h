#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedEngine.h"
#include "armext.h"
#include "process.h"

// What the tests of the exported calls share. Offsets are bare numbers on purpose: the library's
// own structures must not be what the bytes are compared with.

namespace armtest {

/// The second word of the calling thread's identifier.
uint32_t ownThreadWord();

void putWord(Bytes& bytes, size_t offset, int32_t value);
void putText(Bytes& bytes, size_t offset, const std::string& text);
void putBytes(Bytes& bytes, size_t offset, const Bytes& source);
Bytes slice(const Bytes& bytes, size_t offset, size_t length);
/// The text of a field up to its zero byte.
std::string textAt(const Bytes& bytes, size_t offset, size_t size);

/// A record of zeros with the calling thread's identifier and a type.
Bytes blankRecord(int32_t type);
/// Fails the test when the two differ, and names the first offset.
void expectSameBytes(const Bytes& expected, const Bytes& actual);
/// Where the time of a record of a type lies, 0 when there is none.
size_t timeOffset(int32_t type);
/// Fails unless the pair at an offset is a time of this test; copies it into expected.
void expectTimeOfNow(Bytes& expected, const Bytes& actual, size_t offset);

/// A data block of the given size: the format word, flags[0], and a pattern everywhere else.
Bytes makeBlock(size_t size, int32_t format, uint8_t flags = 0);
Correlator makeCorrelator(uint8_t first);

/// One exported call that posts a request, with arguments that it accepts.
struct PostingCall {
  const char* name;
  int32_t type;
  std::function<int32_t()> call;
};

/// All of them.
const std::vector<PostingCall>& postingCalls();

/// A call in a thread of its own.
class CallInThread {
 public:
  explicit CallInThread(std::function<int32_t()> call)
      : thread_([this, call = std::move(call)] { result_ = call(); }) {}
  ~CallInThread() {
    if (thread_.joinable()) thread_.join();
  }
  CallInThread(const CallInThread&) = delete;
  CallInThread& operator=(const CallInThread&) = delete;
  int32_t result() {
    thread_.join();
    return result_;
  }

 private:
  int32_t result_ = 0;
  std::thread thread_;
};

/// Tests without an engine, unless they start one.
class Calls : public testing::Test {
 protected:
  ScriptedEngine engine_;
};

/// Tests with an engine of the default capacities.
class CallsWithEngine : public Calls {
 protected:
  void SetUp() override { ASSERT_TRUE(engine_.start()); }

  /// Fails unless the engine has taken exactly so many requests in all.
  void expectTaken(uint32_t count) const { EXPECT_EQ(count, engine_.taken()); }
};

}  // namespace armtest
