#include "arm/libarmutils.h"

#include <cstring>

#include "arm/arm_user_data1.h"
#include "arm/armcall.h"
#include "arm/export.h"
#include "arm/forkguard.h"
#include "armext.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "intl/intlcodeset.h"
#include "ipc/arm_ipc.h"
#include "platform/CCallScope.h"
#include "platform/callermemory.h"

// Constructed in this order when the library is loaded, destroyed in the reverse order.
CkesMutex VCodesetMutex;
CkesMutex VInitMutex;
std::atomic<bool> IPCInitialized{false};

namespace {

[[maybe_unused]] const bool VForksGuarded = guardForks();

constexpr int ENGINE_USABLE = 0;
constexpr int ENGINE_UNREACHABLE = -2;

int unreachable(const char* line) {
  traceText(line);
  return ENGINE_UNREACHABLE;
}

/// Closes the connection to a dead engine and opens it once more.
int reconnect() {
  (void)unreachable("CheckEngineStatus, IsEngineAlive failed\n");
  IPCInitialized = false;
  CloseIPC();
  (void)unreachable("CheckEngineStatus, Try to InitializeIPC again.\n");
  const bool opened = InitializeIPC();
  IPCInitialized = opened;
  if (!opened) return unreachable("CheckEngineStatus, 2nd try at InitializeIPC failed.\n");
  if (IsEngineAlive()) return ENGINE_USABLE;
  return unreachable("CheckEngineStatus, 2nd InitializeIPC worked, but IsEngineAlive failed.\n");
}

/// Logs why a call ends and returns its result.
int32_t refused(int32_t result, const char* why) {
  traceError(why);
  return result;
}

int32_t endOfCall(const char* exitFormatName, int32_t result) {
  if (VDebugRun) traceFormat("libarm:%s[%ld]\n", exitFormatName, static_cast<long>(result));
  return result;
}

/// Length of a caller's string, looked at no further than one past the longest that is accepted.
std::size_t boundedLength(const char* text, std::size_t fieldSize) {
  return strnlen(text, fieldSize);
}

/// Copies a string into a record field that has been cleared; the last byte stays zero.
void copyText(char* field, std::size_t fieldSize, const char* text) {
  std::memcpy(field, text, strnlen(text, fieldSize - 1));
}

/// Empties a field, or its rest, to its last byte.
void clearText(char* field, std::size_t fieldSize) {
  std::memset(field, 0, fieldSize);
}

/// Converts a string into a record field.  A failed conversion empties the field; output that fills
/// it loses its last byte to the terminator, and nothing stays behind a zero character that was
/// converted.
int32_t convertText(char* field, std::size_t fieldSize, UChar* work, const char* text) {
  const int32_t error = ConvertStrUTF8(text, static_cast<long>(fieldSize), work, field);
  const std::size_t length = error == 0 ? strnlen(field, fieldSize - 1) : 0;
  clearText(field + length, fieldSize - length);
  return error;
}

/// Puts the application's strings into the record as they are, or converted.
/// Deliberate (second-decides): only the user's conversion decides; with a good user, a name that
/// cannot be converted is sent empty.
int32_t fillInitNames(TArmInitBody& body, bool convert, const char* name, const char* user) {
  if (!convert) {
    copyText(body.appl_name, sizeof body.appl_name, name);
    copyText(body.appl_user_id, sizeof body.appl_user_id, user);
    return 0;
  }
  UChar work[ARM_APPL_NAME_FIELD];
  int32_t error = convertText(body.appl_name, sizeof body.appl_name, work, name);
  if (error != 0 && VDebugRun) {
    traceFormat("Conversion of appl_name[%s] failed[%ld]\n", name, static_cast<long>(error));
  }
  error = convertText(body.appl_user_id, sizeof body.appl_user_id, work, user);
  if (error != 0 && VDebugRun) {
    traceFormat("Conversion of appl_user_id[%s] failed[%ld]\n", user, static_cast<long>(error));
  }
  return error;
}

/// Replaces the user "*" by the login name in UTF-8; the empty name when there is none.
int32_t fillLoginName(TArmInitBody& body) {
  clearText(body.appl_user_id, sizeof body.appl_user_id);
  char login[LOGIN_NAME_BUFFER];
  unsigned long length = 0;
  if (!GetUserName(login, &length)) return 0;
  UChar work[ARM_APPL_NAME_FIELD];
  return convertText(body.appl_user_id, sizeof body.appl_user_id, work, login);
}

// The functions that send are kept apart from those that check: a call that is refused, or finds no
// engine, needs no room for a record.

__attribute__((noinline)) int32_t sendInit(bool convert, const char* name, const char* givenUser,
                                           const char* user, int32_t flags) {
  TArmMessage message;
  beginMessage(message, ARM_MSG_INIT);
  TArmInitBody& body = message.messages.init;
  int32_t error = fillInitNames(body, convert, name, givenUser);
  if (error != 0) return refused(error, "UTF-8 conversion failed");
  if (std::strcmp(body.appl_user_id, "*") == 0) {
    error = fillLoginName(body);
    if (error != 0) {
      // Deliberate (emptied-star): the user string in use until now is emptied, and that is the
      // caller's own when nothing was converted.
      if (!convert) (void)clearCallerByte(user);
      return refused(error, "UTF-8 conversion failed");
    }
  }
  body.flags = flags;
  if (VDebugRun) traceFormat("  app[%s]user[%s]\n", body.appl_name, body.appl_user_id);
  return exchangeForStatus(message, TTrace::lines);
}

int32_t registerApplication(bool convert, const char* name, const char* user, int32_t flags) {
  if (CheckEngineStatus() != 0) return refused(ARM_RESULT_NO_ENGINE, "CheckEngineStatus failed");
  if (name == nullptr) return refused(ARM_RESULT_REJECTED, "appl_name is NULL");
  const char* givenUser = user != nullptr ? user : "";
  // One unsigned comparison refuses the empty name together with one that is too long.
  if (boundedLength(name, ARM_APPL_NAME_FIELD) - 1 >= ARM_APPL_NAME_FIELD - 1 ||
      boundedLength(givenUser, ARM_APPL_NAME_FIELD) >= ARM_APPL_NAME_FIELD) {
    return refused(ARM_RESULT_REJECTED, "Some param is too long");
  }
  return sendInit(convert, name, givenUser, user, flags);
}

/// As fillInitNames: only the detail's conversion decides.  Kept apart for its buffer.
__attribute__((noinline)) int32_t fillGetidNames(TArmGetidBody& body, bool convert,
                                                 const char* name, const char* detail) {
  if (!convert) {
    copyText(body.tran_name, sizeof body.tran_name, name);
    copyText(body.tran_detail, sizeof body.tran_detail, detail);
    return 0;
  }
  UChar work[ARM_TRAN_NAME_FIELD];
  (void)convertText(body.tran_name, sizeof body.tran_name, work, name);
  return convertText(body.tran_detail, sizeof body.tran_detail, work, detail);
}

__attribute__((noinline)) int32_t sendGetid(bool convert, int32_t applId, const char* name,
                                            const char* detail, const void* data,
                                            int32_t dataSize) {
  TArmMessage message;
  beginMessage(message, ARM_MSG_GETID);
  TArmGetidBody& body = message.messages.getid;
  const int32_t error = fillGetidNames(body, convert, name, detail);
  if (error != 0) return refused(error, "UTF-8 conversion failed");
  body.appl_id = applId;
  body.data_size = blockHasFormat(data, ARM_DATA_FORMAT_101) ? dataSize : 0;
  copyBlock(body.data, sizeof body.data, data, body.data_size);
  if (VDebugRun) {
    traceFormatLong("  applID[%ld] transname[%s] transdetail[%s]\n", static_cast<long>(applId),
                    body.tran_name, body.tran_detail);
  }
  return exchangeForStatus(message, TTrace::lines);
}

int32_t registerClass(bool convert, int32_t applId, const char* name, const char* detail,
                      const void* data, int32_t dataSize) {
  if (CheckEngineStatus() != 0) return refused(ARM_RESULT_NO_ENGINE, "CheckEngineStatus failed");
  if (applId <= 0 || name == nullptr) {
    return refused(ARM_RESULT_REJECTED, "appl_id or trans name is invalid");
  }
  if (detail == nullptr) detail = "";
  if (boundedLength(name, ARM_TRAN_NAME_FIELD) - 1 >= ARM_TRAN_NAME_FIELD - 1 ||
      boundedLength(detail, ARM_TRAN_DETAIL_FIELD) >= ARM_TRAN_DETAIL_FIELD) {
    return refused(ARM_RESULT_REJECTED, "Some name is too long");
  }
  return sendGetid(convert, applId, name, detail, data, dataSize);
}

int32_t endApplication(int32_t applId) {
  if (CheckEngineStatus() != 0) return refused(ARM_RESULT_NO_ENGINE, "CheckEngineStatus failed");
  if (applId <= 0) return refused(ARM_RESULT_REJECTED, "appl_id is invalid");
  TArmMessage message;
  beginMessage(message, ARM_MSG_END);
  message.messages.end.appl_id = applId;
  if (VDebugRun) traceFormat("  appl_id[%ld]\n", static_cast<long>(applId));
  return exchangeForStatus(message, TTrace::lines, "IPCGetFrmEngine failed");  // sic (frm)
}

}  // namespace

int CheckEngineStatus() {
  (void)VInitMutex.Lock();
  if (!IPCInitialized) IPCInitialized = InitializeIPC();
  (void)VInitMutex.Unlock();
  if (!IPCInitialized) return unreachable("CheckEngineStatus, InitializeIPC failed\n");
  // Deliberate (unguarded-status): from here on without the mutex; the connection's own locks
  // protect the queues.
  return IsEngineAlive() ? ENGINE_USABLE : reconnect();
}

bool isMTPAppName(const char* name) {
  static constexpr const char PROBE[] = "ORV Mendoras Throughput Probe";
  return name != nullptr && std::strncmp(name, PROBE, sizeof PROBE - 1) == 0;
}

ARM_EXPORT arm_int32_t w_ArmInit(unsigned char convert, const char* appl_name,
                                 const char* appl_user_id, arm_int32_t flags, void*, arm_int32_t) {
  const CCallScope scope;
  checkDebug();
  traceText("libarm:arm_init ENTER\n");
  return endOfCall("arm_init EXIT",
                   registerApplication(convert != 0, appl_name, appl_user_id, flags));
}

ARM_EXPORT arm_int32_t arm_init(const char* appl_name, const char* appl_user_id, arm_int32_t flags,
                                void* data, arm_int32_t data_size) {
  return w_ArmInit(1, appl_name, appl_user_id, flags, data, data_size);
}

ARM_EXPORT arm_int32_t w_ArmGetID(unsigned char convert, arm_int32_t appl_id, const char* tran_name,
                                  const char* tran_detail, arm_int32_t, void* data,
                                  arm_int32_t data_size) {
  const CCallScope scope;
  traceText("libarm:arm_getid ENTER\n");
  return endOfCall("arm_getid EXIT",
                   registerClass(convert != 0, appl_id, tran_name, tran_detail, data, data_size));
}

ARM_EXPORT arm_int32_t arm_getid(arm_int32_t appl_id, const char* tran_name,
                                 const char* tran_detail, arm_int32_t flags, void* data,
                                 arm_int32_t data_size) {
  return w_ArmGetID(1, appl_id, tran_name, tran_detail, flags, data, data_size);
}

ARM_EXPORT arm_int32_t arm_end(arm_int32_t appl_id, arm_int32_t, void*, arm_int32_t) {
  const CCallScope scope;
  traceText("libarm:arm_end ENTER\n");
  // sic (exit-blank): a blank before the bracket, unlike in the other registration calls.
  return endOfCall("arm_end EXIT ", endApplication(appl_id));
}
