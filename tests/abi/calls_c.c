#include "calls_c.h"

#include "armext.h"

const struct exported_call calls_of_c[] = {
    {"arm_init", (any_function)&arm_init},
    {"arm_getid", (any_function)&arm_getid},
    {"arm_start", (any_function)&arm_start},
    {"arm_update", (any_function)&arm_update},
    {"arm_stop", (any_function)&arm_stop},
    {"arm_end", (any_function)&arm_end},
    {"w_ArmInit", (any_function)&w_ArmInit},
    {"w_ArmGetID", (any_function)&w_ArmGetID},
    {"arm_transactionReport", (any_function)&arm_transactionReport},
    {"arm_transactionInstanceReport", (any_function)&arm_transactionInstanceReport},
    {"arm_completeTransaction", (any_function)&arm_completeTransaction},
    {"arm_completeTransactionInstance", (any_function)&arm_completeTransactionInstance},
    {"arm_associateMetricData", (any_function)&arm_associateMetricData},
    {"arm_getCorrelatorKey", (any_function)&arm_getCorrelatorKey},
    {"SetExpectedCodeset", (any_function)&SetExpectedCodeset},
    {"GetExpectedCodeset", (any_function)&GetExpectedCodeset},
    {NULL, NULL}};

const struct layout_fact layout_of_c[] = {
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
