// Makes calls of the library for a tracer or an instruction counter to look at.
//
//   counts_client calls                 every exported call once, between two marks
//   counts_client ignored               calls about a transaction that is not measured, likewise
//   counts_client rejected              calls with arguments that are refused, likewise
//   counts_client login                 an arm_init that asks for the login name, likewise
//   counts_client instructions NAME N   N times arm_start ("arm"), or the bare client's ("floor"),
//                                       inside countedCalls()
//   counts_client sleeps N              prints how often N times arm_start went to sleep

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "armext.h"
#include "floor.h"

extern "C" int countedCalls(bool bare, int count);

/// The function that an instruction counter is told to look at. Returns the failed calls.
extern "C" __attribute__((noinline)) int countedCalls(bool bare, int count) {
  int failures = 0;
  if (bare) {
    for (int i = 0; i < count; ++i) failures += floorStart(1) <= 0;
  } else {
    for (int i = 0; i < count; ++i) failures += arm_start(1, 0, nullptr, 0) <= 0;
  }
  return failures;
}

namespace {

/// Shows in a trace, and does nothing.
void mark(const char* text) {
  if (write(-1, text, std::strlen(text)) >= 0) std::abort();
}

/// Calls once to open whatever a first call opens, and once between marks.
template <typename Call>
void traced(const char* name, Call call) {
  call();
  mark(name);
  call();
  mark("end");
}

void makeAllCalls() {
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  traced("arm_init", [] { (void)arm_init("counts", "user", 0, nullptr, 0); });
  traced("w_ArmInit", [] { (void)w_ArmInit(0, "counts", "user", 0, nullptr, 0); });
  traced("arm_getid", [] { (void)arm_getid(1, "class", "detail", 0, nullptr, 0); });
  traced("w_ArmGetID", [] { (void)w_ArmGetID(0, 1, "class", "detail", 0, nullptr, 0); });
  traced("arm_start", [&] { (void)arm_start(1, 0, &block, sizeof block); });
  traced("arm_update", [&] { (void)arm_update(1, 0, &block, sizeof block); });
  traced("arm_stop", [&] { (void)arm_stop(1, ARM_GOOD, 0, &block, sizeof block); });
  traced("arm_transactionReport",
         [&] { (void)arm_transactionReport(1, 0, &block, sizeof block, 1, 1, 1, 1); });
  traced("arm_transactionInstanceReport",
         [&] { (void)arm_transactionInstanceReport(1, 0, &block, sizeof block, 1, 1, 1, 1); });
  traced("arm_completeTransaction", [] { (void)arm_completeTransaction(1, 1, 1); });
  traced("arm_completeTransactionInstance", [] { (void)arm_completeTransactionInstance(1, 1, 1); });
  traced("arm_associateMetricData", [] { (void)arm_associateMetricData(1, "data", 4); });
  traced("arm_end", [] { (void)arm_end(1, 0, nullptr, 0); });
  traced("arm_getCorrelatorKey", [] { (void)arm_getCorrelatorKey(); });
  traced("SetExpectedCodeset", [] { (void)SetExpectedCodeset("UTF-8"); });
  traced("GetExpectedCodeset", [] { (void)GetExpectedCodeset(); });
}

constexpr arm_int32_t NOT_MEASURED = 2147483647;

void makeIgnoredCalls() {
  arm_user_data1_t block = {};
  block.flags[0] = 0x80;  // a parent's correlator
  reinterpret_cast<unsigned char*>(&block)[197] = 0x01;
  traced("arm_start", [&] { (void)arm_start(1, 0, &block, sizeof block); });
  traced("arm_update", [] { (void)arm_update(NOT_MEASURED, 0, nullptr, 0); });
  traced("arm_stop", [] { (void)arm_stop(NOT_MEASURED, ARM_GOOD, 0, nullptr, 0); });
  traced("arm_transactionReport",
         [] { (void)arm_transactionReport(NOT_MEASURED, 0, nullptr, 0, 1, 1, 1, 1); });
  traced("arm_transactionInstanceReport",
         [] { (void)arm_transactionInstanceReport(NOT_MEASURED, 0, nullptr, 0, 1, 1, 1, 1); });
  traced("arm_completeTransaction", [] { (void)arm_completeTransaction(NOT_MEASURED, 1, 1); });
  traced("arm_completeTransactionInstance",
         [] { (void)arm_completeTransactionInstance(NOT_MEASURED, 1, 1); });
  traced("arm_associateMetricData", [] { (void)arm_associateMetricData(NOT_MEASURED, "data", 4); });
}

void makeRejectedCalls() {
  traced("arm_init", [] { (void)arm_init(nullptr, "user", 0, nullptr, 0); });
  traced("w_ArmInit", [] { (void)w_ArmInit(0, "", "user", 0, nullptr, 0); });
  traced("arm_getid", [] { (void)arm_getid(1, nullptr, "detail", 0, nullptr, 0); });
  traced("w_ArmGetID", [] { (void)w_ArmGetID(0, 1, nullptr, "detail", 0, nullptr, 0); });
  traced("arm_start", [] { (void)arm_start(-1, 0, nullptr, 0); });
  traced("arm_update", [] { (void)arm_update(0, 0, nullptr, 0); });
  traced("arm_stop", [] { (void)arm_stop(-1, ARM_GOOD, 0, nullptr, 0); });
  traced("arm_transactionReport",
         [] { (void)arm_transactionReport(-1, 0, nullptr, 0, 1, 1, 1, 1); });
  traced("arm_transactionInstanceReport",
         [] { (void)arm_transactionInstanceReport(-1, 0, nullptr, 0, 1, 1, 1, 1); });
  traced("arm_completeTransaction", [] { (void)arm_completeTransaction(-1, 1, 1); });
  traced("arm_completeTransactionInstance",
         [] { (void)arm_completeTransactionInstance(-1, 1, 1); });
  traced("arm_associateMetricData", [] { (void)arm_associateMetricData(1, nullptr, 4); });
  traced("arm_end", [] { (void)arm_end(-1, 0, nullptr, 0); });
}

void makeLoginCall() {
  traced("arm_init", [] { (void)arm_init("counts", "*", 0, nullptr, 0); });
}

int makeCalls(const std::string& mode) {
  if (mode == "calls") {
    makeAllCalls();
  } else if (mode == "ignored") {
    makeIgnoredCalls();
  } else if (mode == "rejected") {
    makeRejectedCalls();
  } else if (mode == "login") {
    makeLoginCall();
  } else {
    return 1;
  }
  return 0;
}

int count(const std::string& name, int calls) {
  const bool bare = name == "floor";
  if (bare && floorOpen() != 0) return 1;
  constexpr int WARM_UP = 2;
  if (bare) {
    for (int i = 0; i < WARM_UP; ++i) (void)floorStart(1);
  } else {
    for (int i = 0; i < WARM_UP; ++i) (void)arm_start(1, 0, nullptr, 0);
  }
  return countedCalls(bare, calls) == 0 ? 0 : 1;
}

long sleeps() {
  rusage usage = {};
  (void)getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

int countSleeps(int calls) {
  (void)arm_start(1, 0, nullptr, 0);
  const long before = sleeps();
  if (countedCalls(false, calls) != 0) return 1;
  (void)std::printf("%ld\n", sleeps() - before);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4) return count(argv[2], std::atoi(argv[3]));
  if (argc == 3) return countSleeps(std::atoi(argv[2]));
  return argc == 2 ? makeCalls(argv[1]) : 1;
}
