/* The types and constants of the public headers as one object, for the ABI guard: the exported
 * functions take their blocks as plain pointers, so the library itself does not show them. */
#include "armext.h"

/* Each constant that programs have compiled in, as one less than an array's length: of two equal
 * enumerators the comparison would see only one. */
struct arm_guarded_constants {
  char (*is_ARM_GOOD)[ARM_GOOD + 1];
  char (*is_ARM_ABORT)[ARM_ABORT + 1];
  char (*is_ARM_FAILED)[ARM_FAILED + 1];
  char (*is_IGNOREID)[IGNOREID]; /* one more would be too long */
  char (*is_ARM_DATA_FORMAT_1)[ARM_DATA_FORMAT_1 + 1];
  char (*is_ARM_DATA_FORMAT_2)[ARM_DATA_FORMAT_2 + 1];
  char (*is_ARM_DATA_FORMAT_101)[ARM_DATA_FORMAT_101 + 1];
  char (*is_ARM_CorrPar_f)[ARM_CorrPar_f + 1];
  char (*is_ARM_CorrReq_f)[ARM_CorrReq_f + 1];
  char (*is_ARM_CorrGen_f)[ARM_CorrGen_f + 1];
  char (*is_ARM_TraceReq_f)[ARM_TraceReq_f + 1];
  char (*is_ARM_Metric1_f)[ARM_Metric1_f + 1];
  char (*is_ARM_Metric2_f)[ARM_Metric2_f + 1];
  char (*is_ARM_Metric3_f)[ARM_Metric3_f + 1];
  char (*is_ARM_Metric4_f)[ARM_Metric4_f + 1];
  char (*is_ARM_Metric5_f)[ARM_Metric5_f + 1];
  char (*is_ARM_Metric6_f)[ARM_Metric6_f + 1];
  char (*is_ARM_String1_f)[ARM_String1_f + 1];
  char (*is_ARM_AllMetrics_f)[ARM_AllMetrics_f + 1];
  char (*is_ARM_Counter32)[ARM_Counter32 + 1];
  char (*is_ARM_Counter64)[ARM_Counter64 + 1];
  char (*is_ARM_CntrDivr32)[ARM_CntrDivr32 + 1];
  char (*is_ARM_Gauge32)[ARM_Gauge32 + 1];
  char (*is_ARM_Gauge64)[ARM_Gauge64 + 1];
  char (*is_ARM_GaugeDivr32)[ARM_GaugeDivr32 + 1];
  char (*is_ARM_NumericID32)[ARM_NumericID32 + 1];
  char (*is_ARM_NumericID64)[ARM_NumericID64 + 1];
  char (*is_ARM_String8)[ARM_String8 + 1];
  char (*is_ARM_String32)[ARM_String32 + 1];
  char (*is_ARM_NAME_SIZE)[ARM_NAME_SIZE + 1];
  char (*is_ARM_CORRELATOR_SIZE)[ARM_CORRELATOR_SIZE + 1];
  char (*is_ARM_METRIC_DATA_SIZE)[ARM_METRIC_DATA_SIZE + 1];
};

struct arm_guarded_types {
  arm_uint32_t words;
  arm_uint16_t halves;
  arm_user_data1_t data1;
  arm_user_data2_t data2;
  arm_user_data101_t data101;
  struct arm_guarded_constants constants;
};

extern struct arm_guarded_types arm_guarded;
struct arm_guarded_types arm_guarded = {0};
