#include "CallTest.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "now.h"

namespace armtest {

namespace {

const time_t BEGIN = time(nullptr);

int32_t callMetricData() {
  const char data[] = "12345678";
  return arm_associateMetricData(5, data, 8);
}

}  // namespace

uint32_t ownThreadWord() {
#if defined(__LP64__)
  return static_cast<uint32_t>(syscall(SYS_gettid));
#else
  return static_cast<uint32_t>(pthread_self());
#endif
}

void putWord(Bytes& bytes, size_t offset, int32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

void putText(Bytes& bytes, size_t offset, const std::string& text) {
  std::copy(text.begin(), text.end(), bytes.begin() + static_cast<ssize_t>(offset));
}

void putBytes(Bytes& bytes, size_t offset, const Bytes& source) {
  std::copy(source.begin(), source.end(), bytes.begin() + static_cast<ssize_t>(offset));
}

Bytes slice(const Bytes& bytes, size_t offset, size_t length) {
  const auto first = bytes.begin() + static_cast<ssize_t>(offset);
  return Bytes(first, first + static_cast<ssize_t>(length));
}

std::string textAt(const Bytes& bytes, size_t offset, size_t size) {
  const char* text = reinterpret_cast<const char*>(bytes.data() + offset);
  return std::string(text, strnlen(text, size));
}

Bytes blankRecord(int32_t type) {
  Bytes record(4116, 0);
  putWord(record, 0, getpid());
  putWord(record, 4, static_cast<int32_t>(ownThreadWord()));
  putWord(record, 8, type);
  return record;
}

void expectSameBytes(const Bytes& expected, const Bytes& actual) {
  ASSERT_EQ(expected.size(), actual.size());
  const auto differ = std::mismatch(expected.begin(), expected.end(), actual.begin());
  if (differ.first == expected.end()) return;
  ADD_FAILURE() << "byte " << differ.first - expected.begin() << " is " << int(*differ.second)
                << " instead of " << int(*differ.first);
}

size_t timeOffset(int32_t type) {
  switch (type) {
    case 3:
      return 280;
    case 4:
      return 1048;
    case 5:
      return 284;
    case 15:
    case 18:
      return 24;
    case 16:
    case 17:
      return 292;
    default:
      return 0;
  }
}

void expectTimeOfNow(Bytes& expected, const Bytes& actual, size_t offset) {
  EXPECT_GE(word(actual, offset), static_cast<uint32_t>(BEGIN));
  EXPECT_LE(word(actual, offset), static_cast<uint32_t>(now()));
  EXPECT_LT(word(actual, offset + 4), 1000000000U);
  EXPECT_EQ(0U, word(actual, offset + 4) % 1000);
  putBytes(expected, offset, slice(actual, offset, 8));
}

Bytes makeBlock(size_t size, int32_t format, uint8_t flags) {
  Bytes block(size);
  for (size_t i = 0; i < size; ++i) block[i] = static_cast<uint8_t>(i * 7 + 3);
  putWord(block, 0, format);
  block[4] = flags;
  // Not a parent that is to be ignored.
  if (size > 197) block[197] = 0xF0;
  return block;
}

Correlator makeCorrelator(uint8_t first) {
  Correlator correlator;
  for (size_t i = 0; i < correlator.size(); ++i) {
    correlator[i] = static_cast<uint8_t>(first + i);
  }
  return correlator;
}

const std::vector<PostingCall>& postingCalls() {
  static const std::vector<PostingCall> CALLS = {
      {"arm_init", 1, [] { return arm_init("app", "user", 0, nullptr, 0); }},
      {"w_ArmInit", 1, [] { return w_ArmInit(0, "app", "user", 0, nullptr, 0); }},
      {"arm_getid", 2, [] { return arm_getid(5, "class", "detail", 0, nullptr, 0); }},
      {"w_ArmGetID", 2, [] { return w_ArmGetID(0, 5, "class", "detail", 0, nullptr, 0); }},
      {"arm_start", 3, [] { return arm_start(5, 0, nullptr, 0); }},
      {"arm_update", 4, [] { return arm_update(5, 0, nullptr, 0); }},
      {"arm_stop", 5, [] { return arm_stop(5, ARM_GOOD, 0, nullptr, 0); }},
      {"arm_end", 6, [] { return arm_end(5, 0, nullptr, 0); }},
      {"arm_completeTransaction", 15, [] { return arm_completeTransaction(5, 6, 7); }},
      {"arm_transactionReport", 16,
       [] { return arm_transactionReport(5, 0, nullptr, 0, 1, 6, 7, 8); }},
      {"arm_transactionInstanceReport", 17,
       [] { return arm_transactionInstanceReport(5, 0, nullptr, 0, 1, 6, 7, 8); }},
      {"arm_completeTransactionInstance", 18,
       [] { return arm_completeTransactionInstance(5, 6, 7); }},
      {"arm_associateMetricData", 19, callMetricData},
  };
  return CALLS;
}

}  // namespace armtest
