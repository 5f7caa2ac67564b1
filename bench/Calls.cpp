#include "Calls.h"

#include <atomic>
#include <cstdio>
#include <new>

#include "Team.h"
#include "arm.h"
#include "floor.h"

namespace bench {

namespace {

using Counter = std::atomic<long>;

/// Shared with forked workers.
Counter& failures = *new (sharedMemory(sizeof(Counter))) Counter;
arm_int32_t tran_id = 0;

void expect(bool good) {
  if (!good) failures.fetch_add(1, std::memory_order_relaxed);
}

arm_user_data1_t ignoredParent() {
  constexpr unsigned IGNORE_BYTE = 109;
  arm_user_data1_t block = {};
  block.format = ARM_DATA_FORMAT_1;
  block.flags[0] = ARM_CorrPar_f;
  block.correlator.bytes[IGNORE_BYTE] = 1;
  return block;
}

void start() {
  expect(arm_start(tran_id, 0, nullptr, 0) > 0);
}

void startBare() {
  expect(floorStart(tran_id) > 0);
}

void startBareScanning() {
  expect(floorStartScanning(tran_id) > 0);
}

void startIgnored() {
  static thread_local arm_user_data1_t block = ignoredParent();
  expect(arm_start(tran_id, 0, &block, sizeof block) == IGNOREID);
}

void startAndStop() {
  const arm_int32_t handle = arm_start(tran_id, 0, nullptr, 0);
  expect(handle > 0 && arm_stop(handle, ARM_GOOD, 0, nullptr, 0) == 0);
}

void startOrStop() {
  static thread_local arm_int32_t handle = 0;
  if (handle == 0) {
    handle = arm_start(tran_id, 0, nullptr, 0);
    expect(handle > 0);
  } else {
    expect(arm_stop(handle, ARM_GOOD, 0, nullptr, 0) == 0);
    handle = 0;
  }
}

void startWithoutEngine() {
  expect(arm_start(-2, 0, nullptr, 0) == -2);
}

}  // namespace

Call callNamed(const std::string& name) {
  if (name == "arm") return start;
  if (name == "floor") return startBare;
  if (name == "scan") return startBareScanning;
  if (name == "ignored") return startIgnored;
  if (name == "pair") return startAndStop;
  if (name == "either") return startOrStop;
  if (name == "none") return startWithoutEngine;
  return nullptr;
}

bool prepareCalls() {
  const arm_int32_t application = arm_init("bench", "bench", 0, nullptr, 0);
  tran_id = arm_getid(application, "transaction", "", 0, nullptr, 0);
  if (application > 0 && tran_id > 0 && floorOpen() == 0) return true;
  (void)std::fprintf(stderr, "no engine answers: arm_init gave %d, arm_getid %d\n", application,
                     tran_id);
  return false;
}

long failedCalls() {
  return failures.load();
}

}  // namespace bench
