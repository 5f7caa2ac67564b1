// Hosts that use the floating-point unit in their own way: what they have in there when they call
// must neither reach the queue nor be changed, and never ends them.

#include <fenv.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "CallTest.h"
#include "rawqueues.h"

namespace armtest {
namespace {

/// The unit's control, status and tag words, the SIMD control word, and the eight registers that
/// x87 and MMX share. Reading it runs no instruction that raises a pending exception.
struct Unit {
  alignas(16) uint8_t image[512] = {};

  void read() { asm volatile("fxsave %0" : "=m"(image)); }
  Bytes words() const {
    Bytes all(image, image + 5);
    all.insert(all.end(), image + 24, image + 28);
    for (size_t i = 0; i < 8; ++i) {
      all.insert(all.end(), image + 32 + 16 * i, image + 42 + 16 * i);
    }
    return all;
  }
};

void backToNormal() {
  const uint32_t simd = 0x1F80;
  asm volatile("fninit\n ldmxcsr %0" : : "m"(simd));
}

void trapsOn() {
  (void)feenableexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW | FE_UNDERFLOW | FE_INEXACT);
}

/// A division by zero, made while it is masked: the next instruction of the unit raises it.
void pendingException() {
  uint16_t control = 0;
  asm volatile(
      "fnstcw %0\n"
      "fld1\n fldz\n fdivrp\n fstp %%st(0)\n"
      "andw $0xFFC0, %0\n"
      "fldcw %0"
      : "+m"(control));
}

void fullStack() {
  for (int i = 0; i < 8; ++i) asm volatile("fld1");
}

void fullStackAndTraps() {
  trapsOn();
  fullStack();
}

void mmx() {
  const uint64_t value = 0x1122334455667788;
  asm volatile("movq %0, %%mm0\n movq %0, %%mm3\n movq %0, %%mm7" : : "m"(value));
}

struct Host {
  const char* name;
  void (*enter)();
};

using HostAndTracing = std::tuple<Host, bool>;

class FloatingPointUnit : public testing::TestWithParam<HostAndTracing> {
 protected:
  void SetUp() override {
    if (std::get<bool>(GetParam())) setenv("ARMDEBUG", "", 1);
    const size_t head = replies_.headOf(static_cast<uint32_t>(getpid()), ownThreadWord());
    for (int32_t i = 0; i < 13; ++i) replies_.reply(head, replyRecord(4000 + i));
  }

  RequestQueue requests_{13};
  ReplyQueue replies_{13};
};

TEST_P(FloatingPointUnit, IsNotTouchedAndEveryRequestCounts) {
  // The words that say where the records are. What stands behind them is nobody's, and stays.
  requests_.setRing(0, 7, 7);
  requests_.memory.put16(6, 0xABCD);
  int32_t posted = 0;
  for (const PostingCall& one : postingCalls()) {
    Unit before;
    Unit after;
    std::get<Host>(GetParam()).enter();
    before.read();
    const int32_t result = one.call();
    after.read();
    backToNormal();
    ASSERT_EQ(before.words(), after.words()) << one.name;
    ASSERT_EQ(4000 + posted, result) << one.name;
    const size_t slot = static_cast<size_t>(7 + posted) % 13;
    ++posted;
    EXPECT_EQ(posted, requests_.count()) << one.name;
    EXPECT_EQ(7, requests_.head()) << one.name;
    EXPECT_EQ((7 + posted) % 13, requests_.tail()) << one.name;
    EXPECT_EQ(0xABCD, requests_.memory.u16(6)) << one.name;
    EXPECT_EQ(static_cast<uint32_t>(one.type), word(requests_.slot(slot), 8)) << one.name;
  }
  EXPECT_EQ(13, posted);
  EXPECT_FALSE(requests_.locked());
}

INSTANTIATE_TEST_SUITE_P(
    Of, FloatingPointUnit,
    testing::Combine(testing::Values(Host{"AnUnassumingHost", [] {}},
                                     Host{"AHostWithTrapsOn", trapsOn},
                                     Host{"AHostWithAPendingException", pendingException},
                                     Host{"AHostWithAFullStack", fullStack},
                                     Host{"AHostWithAFullStackAndTrapsOn", fullStackAndTraps},
                                     Host{"AHostInMmxState", mmx}),
                     testing::Bool()),
    [](const testing::TestParamInfo<HostAndTracing>& one) {
      const std::string name = std::get<Host>(one.param).name;
      return std::get<bool>(one.param) ? name + "ThatTraces" : name;
    });

}  // namespace
}  // namespace armtest
