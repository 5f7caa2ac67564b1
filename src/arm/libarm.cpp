#include "arm/libarm.h"

#include "arm/arm_user_data1.h"
#include "arm/armcall.h"
#include "arm/export.h"
#include "arm/libarmutils.h"
#include "armext.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "platform/CCallScope.h"

namespace {

int32_t exchangeWithCorrelator(const TArmMessage& message, void* block, TTrace trace) {
  TArmReplyMessage reply;
  const int32_t failure = exchange(message, reply, trace);
  if (failure != 0) return failure;
  returnCorrelator(block, reply);
  return reply.result;
}

int32_t startTransaction(int32_t tranId, void* data, int32_t dataSize) {
  if (CheckEngineStatus() != 0) {
    traceError("CheckEngineStatus failed");
    return ARM_RESULT_NO_ENGINE;
  }
  // Before the id is looked at, and whatever the block's format word.
  if (parentIsIgnored(data)) {
    markIgnoredBlock(data);
    traceText("  Ignoring this tran_id\n");
    return IGNOREID;
  }
  if (tranId < 0) {
    traceError("Bad tran ID");
    return ARM_RESULT_REJECTED;
  }
  TArmMessage message;
  beginMessage(message, ARM_MSG_START);
  TArmStartBody& body = message.messages.start;
  body.time = currentTime();
  body.tran_id = tranId;
  // Deliberate (dropped-flags): the caller's flags are dropped; the field stays 0.
  body.data_size = blockHasFormat(data, ARM_DATA_FORMAT_1) ? dataSize : 0;
  copyBlock(body.data, sizeof body.data, data, body.data_size);
  if (VDebugRun) traceFormat("  tran_id[%ld]\n", static_cast<long>(tranId));
  return exchangeWithCorrelator(message, data, TTrace::lines);
}

int32_t updateTransaction(int32_t startHandle, int32_t flags, const void* data, int32_t dataSize) {
  if (CheckEngineStatus() != 0) return ARM_RESULT_NO_ENGINE;
  if (startHandle == IGNOREID) return 0;
  if (startHandle <= 0) return ARM_RESULT_REJECTED;
  TArmMessage message;
  beginMessage(message, ARM_MSG_UPDATE);
  TArmUpdateBody& body = message.messages.update;
  body.time = currentTime();
  body.start_handle = startHandle;
  body.flags = flags;
  // The caller's size is sent as given and not compared with what is copied.
  if (blockHasFormat(data, ARM_DATA_FORMAT_1)) {
    body.data_size = dataSize;
    copyBlock(body.data, ARM_FORMAT1_SIZE, data, 1);
  } else if (blockHasFormat(data, ARM_DATA_FORMAT_2)) {
    body.data_size = dataSize;
    copyBlock(body.data, ARM_FORMAT2_SIZE, data, 1);
  }
  return exchangeForStatus(message, TTrace::silent);
}

int32_t stopTransaction(int32_t startHandle, int32_t status, int32_t flags, const void* data,
                        int32_t dataSize) {
  if (CheckEngineStatus() != 0) {
    traceError("CheckEngineStatus failed");
    return ARM_RESULT_NO_ENGINE;
  }
  if (startHandle == IGNOREID) {
    traceText("  Passed IGNOREID\n");
    return 0;
  }
  // Deliberate (stop-zero): 0 is accepted here, unlike in update.
  if (startHandle < 0) {
    traceError("Invalid start_handle");
    return ARM_RESULT_REJECTED;
  }
  TArmMessage message;
  beginMessage(message, ARM_MSG_STOP);
  TArmStopBody& body = message.messages.stop;
  body.time = currentTime();
  body.start_handle = startHandle;
  body.comp_status = status;
  body.flags = flags;
  // Deliberate (stop-block): a block of any format is sent.
  body.data_size = data != nullptr ? dataSize : 0;
  copyBlock(body.data, sizeof body.data, data, body.data_size);
  if (VDebugRun) traceFormat("  start_handle[%ld]\n", static_cast<long>(startHandle));
  return exchangeForStatus(message, TTrace::lines);
}

int32_t associateMetricData(int32_t tranHandle, const void* buffer, int32_t length) {
  if (CheckEngineStatus() != 0) return ARM_RESULT_NO_ENGINE;
  if (tranHandle == IGNOREID) return 0;
  if (tranHandle < 0 || buffer == nullptr) return ARM_RESULT_REJECTED;
  if (length > ARM_METRIC_DATA_SIZE || length <= 0) return ARM_RESULT_REJECTED;
  TArmMessage message;
  beginMessage(message, ARM_MSG_ASSOCIATE_METRIC_DATA);
  TArmMetricDataBody& body = message.messages.metric_data;
  body.tran_handle = tranHandle;
  body.length = length;
  copyBlock(body.metric_data, static_cast<std::size_t>(length), buffer, length);
  return exchangeForStatus(message, TTrace::silent);
}

}  // namespace

int32_t doTransReport(TArmMessageType type, int32_t tranHandle, int32_t, void* data,
                      int32_t dataSize, int32_t stampTime, int32_t value1, int32_t value2,
                      int32_t value3) {
  if (CheckEngineStatus() != 0) return ARM_RESULT_NO_ENGINE;
  if (tranHandle == IGNOREID) return 0;
  if (tranHandle < 0 || value1 < 0 || value2 < 0) return ARM_RESULT_REJECTED;
  TArmMessage message;
  beginMessage(message, type);
  TArmReportBody& body = message.messages.report;
  if (stampTime != 0) body.time = currentTime();
  body.tran_handle = tranHandle;
  body.report_value1 = value1;
  body.report_value2 = value2;
  body.report_value3 = value3;
  body.data_size = blockHasFormat(data, ARM_DATA_FORMAT_1) ? dataSize : 0;
  copyBlock(body.data, sizeof body.data, data, body.data_size);
  return exchangeWithCorrelator(message, data, TTrace::silent);
}

int32_t doCompleteTrans(TArmMessageType type, int32_t tranHandle, int32_t value1, int32_t value2) {
  if (CheckEngineStatus() != 0) return ARM_RESULT_NO_ENGINE;
  if (tranHandle == IGNOREID) return 0;
  if (tranHandle < 0 || value1 < 0) return ARM_RESULT_REJECTED;
  TArmMessage message;
  beginMessage(message, type);
  TArmCompleteBody& body = message.messages.complete;
  body.time = currentTime();
  body.tran_handle = tranHandle;
  body.complete_value1 = value1;
  body.complete_value2 = value2;
  return exchangeForStatus(message, TTrace::silent);
}

ARM_EXPORT arm_int32_t arm_start(arm_int32_t tran_id, arm_int32_t, void* data,
                                 arm_int32_t data_size) {
  const CCallScope scope;
  traceText("libarm:arm_start ENTER\n");
  const int32_t result = startTransaction(tran_id, data, data_size);
  if (VDebugRun) traceFormat("libarm:arm_start EXIT [%ld]\n", static_cast<long>(result));
  return result;
}

ARM_EXPORT arm_int32_t arm_update(arm_int32_t start_handle, arm_int32_t flags, void* data,
                                  arm_int32_t data_size) {
  const CCallScope scope;
  return updateTransaction(start_handle, flags, data, data_size);
}

ARM_EXPORT arm_int32_t arm_stop(arm_int32_t start_handle, arm_int32_t tran_status,
                                arm_int32_t flags, void* data, arm_int32_t data_size) {
  const CCallScope scope;
  traceText("libarm:arm_stop ENTER\n");
  const int32_t result = stopTransaction(start_handle, tran_status, flags, data, data_size);
  // sic (exit-blank): no blank before the bracket, unlike in arm_start.
  if (VDebugRun) traceFormat("libarm:arm_stop EXIT[%ld]\n", static_cast<long>(result));
  return result;
}

ARM_EXPORT arm_int32_t arm_transactionReport(arm_int32_t tran_handle, arm_int32_t ignored_value,
                                             void* data, arm_int32_t data_size,
                                             arm_int32_t stamp_time, arm_int32_t report_value1,
                                             arm_int32_t report_value2, arm_int32_t report_value3) {
  const CCallScope scope;
  return doTransReport(ARM_MSG_TRANS_REPORT, tran_handle, ignored_value, data, data_size,
                       stamp_time, report_value1, report_value2, report_value3);
}

ARM_EXPORT arm_int32_t arm_transactionInstanceReport(arm_int32_t tran_handle,
                                                     arm_int32_t ignored_value, void* data,
                                                     arm_int32_t data_size, arm_int32_t stamp_time,
                                                     arm_int32_t report_value1,
                                                     arm_int32_t report_value2,
                                                     arm_int32_t report_value3) {
  const CCallScope scope;
  return doTransReport(ARM_MSG_TRANS_INSTANCE_REPORT, tran_handle, ignored_value, data, data_size,
                       stamp_time, report_value1, report_value2, report_value3);
}

ARM_EXPORT arm_int32_t arm_completeTransaction(arm_int32_t tran_handle, arm_int32_t complete_value1,
                                               arm_int32_t complete_value2) {
  const CCallScope scope;
  return doCompleteTrans(ARM_MSG_COMPLETE_TRANS, tran_handle, complete_value1, complete_value2);
}

ARM_EXPORT arm_int32_t arm_completeTransactionInstance(arm_int32_t tran_handle,
                                                       arm_int32_t complete_value1,
                                                       arm_int32_t complete_value2) {
  const CCallScope scope;
  return doCompleteTrans(ARM_MSG_COMPLETE_TRANS_INSTANCE, tran_handle, complete_value1,
                         complete_value2);
}

ARM_EXPORT arm_int32_t arm_associateMetricData(arm_int32_t tran_handle, const void* buffer,
                                               arm_int32_t length) {
  const CCallScope scope;
  return associateMetricData(tran_handle, buffer, length);
}

ARM_EXPORT const char* arm_getCorrelatorKey() {
  return "ARM_CORRELATOR";
}
