#include "calls_c.h"

#include "armext.h"

const struct ExportedCall CALLS_OF_C[] = {
    {"arm_init", (AnyFunction)&arm_init},
    {"arm_getid", (AnyFunction)&arm_getid},
    {"arm_start", (AnyFunction)&arm_start},
    {"arm_update", (AnyFunction)&arm_update},
    {"arm_stop", (AnyFunction)&arm_stop},
    {"arm_end", (AnyFunction)&arm_end},
    {"w_ArmInit", (AnyFunction)&w_ArmInit},
    {"w_ArmGetID", (AnyFunction)&w_ArmGetID},
    {"arm_transactionReport", (AnyFunction)&arm_transactionReport},
    {"arm_transactionInstanceReport", (AnyFunction)&arm_transactionInstanceReport},
    {"arm_completeTransaction", (AnyFunction)&arm_completeTransaction},
    {"arm_completeTransactionInstance", (AnyFunction)&arm_completeTransactionInstance},
    {"arm_associateMetricData", (AnyFunction)&arm_associateMetricData},
    {"arm_getCorrelatorKey", (AnyFunction)&arm_getCorrelatorKey},
    {"SetExpectedCodeset", (AnyFunction)&SetExpectedCodeset},
    {"GetExpectedCodeset", (AnyFunction)&GetExpectedCodeset},
    {NULL, NULL}};

const struct LayoutFact LAYOUT_OF_C[] = {
    {"arm_int32_t", sizeof(arm_int32_t), 4},
    {"arm_uint32_t", sizeof(arm_uint32_t), 4},
    {"arm_uint16_t", sizeof(arm_uint16_t), 2},
    {"arm_uint8_t", sizeof(arm_uint8_t), 1},
    {"arm_correlator_t", sizeof(arm_correlator_t), 168},
    {"arm_metric_t", sizeof(arm_metric_t), 8},
    {"arm_user_data1_t", sizeof(arm_user_data1_t), 256},
    {"arm_user_data1_t.format", offsetof(arm_user_data1_t, format), 0},
    {"arm_user_data1_t.flags", offsetof(arm_user_data1_t, flags), 4},
    {"arm_user_data1_t.metric", offsetof(arm_user_data1_t, metric), 8},
    {"arm_user_data1_t.string32", offsetof(arm_user_data1_t, string32), 56},
    {"arm_user_data1_t.correlator", offsetof(arm_user_data1_t, correlator), 88},
    {"arm_user_data2_t", sizeof(arm_user_data2_t), 1024},
    {"arm_user_data2_t.data", offsetof(arm_user_data2_t, data), 4},
    {"arm_metric_description_t", sizeof(arm_metric_description_t), 48},
    {"arm_metric_description_t.type", offsetof(arm_metric_description_t, type), 0},
    {"arm_metric_description_t.name", offsetof(arm_metric_description_t, name), 4},
    {"arm_user_data101_t", sizeof(arm_user_data101_t), 344},
    {"arm_user_data101_t.format", offsetof(arm_user_data101_t, format), 0},
    {"arm_user_data101_t.flags", offsetof(arm_user_data101_t, flags), 4},
    {"arm_user_data101_t.metric", offsetof(arm_user_data101_t, metric), 8},
    {NULL, 0, 0}};
