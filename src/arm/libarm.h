#pragma once

#include <cstdint>

#include "arm/TArmMessage.h"

// The workers that pairs of exported calls share; they differ in the message type only.

/// The worker of arm_transactionReport and arm_transactionInstanceReport; arguments and results as
/// there.  The ignored value is accepted and never used.
int32_t doTransReport(TArmMessageType type, int32_t tranHandle, int32_t ignoredValue, void* data,
                      int32_t dataSize, int32_t stampTime, int32_t value1, int32_t value2,
                      int32_t value3);

/// The worker of arm_completeTransaction and arm_completeTransactionInstance; arguments and results
/// as there.
int32_t doCompleteTrans(TArmMessageType type, int32_t tranHandle, int32_t value1, int32_t value2);
