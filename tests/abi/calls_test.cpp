// The public headers and the calls behind them, as C and C++ programs see them.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "armext.h"
#include "calls_c.h"

namespace {

/// The call that a program finds by its versioned name.
void* versioned(const char* name) {
  return dlvsym(RTLD_DEFAULT, name, "VERS_1.0");
}

void* plain(AnyFunction function) {
  return reinterpret_cast<void*>(function);
}

template <typename Function>
void expectCall(const char* name, Function* function) {
  EXPECT_NE(nullptr, versioned(name)) << name;
  EXPECT_EQ(versioned(name), reinterpret_cast<void*>(function)) << name;
}

TEST(Calls, EachIsTheOneOfItsVersionInC) {
  std::set<std::string> names;
  for (const ExportedCall* call = CALLS_OF_C; call->name != nullptr; ++call) {
    EXPECT_NE(nullptr, versioned(call->name)) << call->name;
    EXPECT_EQ(versioned(call->name), plain(call->address)) << call->name;
    names.insert(call->name);
  }
  EXPECT_EQ(16U, names.size());
}

TEST(Calls, EachIsTheOneOfItsVersionInCpp) {
  expectCall("arm_init", &arm_init);
  expectCall("arm_getid", &arm_getid);
  expectCall("arm_start", &arm_start);
  expectCall("arm_update", &arm_update);
  expectCall("arm_stop", &arm_stop);
  expectCall("arm_end", &arm_end);
  expectCall("w_ArmInit", &w_ArmInit);
  expectCall("w_ArmGetID", &w_ArmGetID);
  expectCall("arm_transactionReport", &arm_transactionReport);
  expectCall("arm_transactionInstanceReport", &arm_transactionInstanceReport);
  expectCall("arm_completeTransaction", &arm_completeTransaction);
  expectCall("arm_completeTransactionInstance", &arm_completeTransactionInstance);
  expectCall("arm_associateMetricData", &arm_associateMetricData);
  expectCall("arm_getCorrelatorKey", &arm_getCorrelatorKey);
  expectCall("SetExpectedCodeset", &SetExpectedCodeset);
  expectCall("GetExpectedCodeset", &GetExpectedCodeset);
}

TEST(Calls, HaveNoOtherVersion) {
  for (const ExportedCall* call = CALLS_OF_C; call->name != nullptr; ++call) {
    EXPECT_EQ(nullptr, dlvsym(RTLD_DEFAULT, call->name, "VERS_2.0")) << call->name;
  }
}

TEST(Calls, InternalOnesCannotBeFound) {
  for (const char* name : {"_Z17CheckEngineStatusv", "_Z13InitializeIPCv", "_Z11dumpMsgSizesv",
                           "processAttach", "_Z13processAttachv", "VDebugRun"}) {
    EXPECT_EQ(nullptr, dlsym(RTLD_DEFAULT, name)) << name;
  }
}

TEST(Headers, LayoutIsTheContractsInC) {
  size_t facts = 0;
  for (const LayoutFact* fact = LAYOUT_OF_C; fact->what != nullptr; ++fact, ++facts) {
    EXPECT_EQ(fact->expected, fact->found) << fact->what;
  }
  EXPECT_EQ(21U, facts);
}

TEST(Headers, LayoutIsTheContractsInCpp) {
  EXPECT_EQ(168U, sizeof(arm_correlator_t));
  EXPECT_EQ(8U, sizeof(arm_metric_t));
  EXPECT_EQ(256U, sizeof(arm_user_data1_t));
  EXPECT_EQ(1024U, sizeof(arm_user_data2_t));
  EXPECT_EQ(344U, sizeof(arm_user_data101_t));
  EXPECT_EQ(56U, offsetof(arm_user_data1_t, string32));
  EXPECT_EQ(88U, offsetof(arm_user_data1_t, correlator));
  EXPECT_EQ(4U, offsetof(arm_user_data2_t, data));
  EXPECT_EQ(8U, offsetof(arm_user_data101_t, metric));
}

TEST(Headers, ConstantsHaveTheStandardsValues) {
  EXPECT_EQ(0, ARM_GOOD);
  EXPECT_EQ(1, ARM_ABORT);
  EXPECT_EQ(2, ARM_FAILED);
  EXPECT_EQ(2147483647, IGNOREID);
  EXPECT_EQ(1, ARM_DATA_FORMAT_1);
  EXPECT_EQ(2, ARM_DATA_FORMAT_2);
  EXPECT_EQ(101, ARM_DATA_FORMAT_101);
  EXPECT_EQ(0x80, ARM_CorrPar_f);
  EXPECT_EQ(0x40, ARM_CorrReq_f);
  EXPECT_EQ(0x20, ARM_CorrGen_f);
  EXPECT_EQ(0x10, ARM_TraceReq_f);
  EXPECT_EQ(0x80, ARM_Metric1_f);
  EXPECT_EQ(0x02, ARM_String1_f);
  EXPECT_EQ(0xFE, ARM_AllMetrics_f);
  EXPECT_EQ(1, ARM_Counter32);
  EXPECT_EQ(10, ARM_String32);
  EXPECT_EQ(128, ARM_NAME_SIZE);
  EXPECT_EQ(168, ARM_CORRELATOR_SIZE);
  EXPECT_EQ(4096, ARM_METRIC_DATA_SIZE);
}

}  // namespace
