#include "intl/intlcodeset.h"

#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <cstdio>
#include <cstdlib>

#include "arm/export.h"
#include "arm/libarmutils.h"
#include "armext.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "platform/CCallScope.h"
#include "platform/environment.h"
#include "platform/forkgate.h"

UConverter* VCodesetConverter = nullptr;
char* env_ICU_DATA = nullptr;

namespace {

constexpr const char ICU_DATA_VARIABLE[] = "ICU_DATA";
constexpr const char ICU_DATA_DIRECTORY[] = "/var/orv/kestra/common/QDN/icudata";
constexpr const char* BACKUP_CODESET = "US-ASCII";

int32_t putICUDataIntoEnvironment() {
  if (env_ICU_DATA != nullptr) return 0;
  constexpr std::size_t size = sizeof ICU_DATA_VARIABLE + sizeof ICU_DATA_DIRECTORY;
  env_ICU_DATA = static_cast<char*>(std::malloc(size));
  if (env_ICU_DATA == nullptr) return INTL_ERR_ENVIRONMENT;
  (void)std::snprintf(env_ICU_DATA, size, "%s=%s", ICU_DATA_VARIABLE, ICU_DATA_DIRECTORY);
  // Deliberate (tried-once): after a failure the pointer stays, so it is not tried again.
  // Deliberate (replaced-icu-data): what the application has set there is replaced.
  return putIntoEnvironment(env_ICU_DATA) ? 0 : INTL_ERR_ENVIRONMENT;
}

void openRequested(const char* codeset) {
  UErrorCode status = U_ZERO_ERROR;
  VCodesetConverter = ucnv_open(codeset, &status);
  if (U_SUCCESS(status) || !VDebugRun) return;
  constexpr const char* LINE =
      "intlGetICUConverter()->ICU ERROR Code [%i] on ucnv_open() for codeset <%s> \n";
  if (codeset != nullptr) {
    traceFormatLong(LINE, static_cast<int>(status), codeset);
  } else {
    // Maybe below a conversion, which has a record and a name on the stack.
    traceFormatShort(LINE, static_cast<int>(status), "(null)");
  }
}

void openBackup() {
  UErrorCode status = U_ZERO_ERROR;
  VCodesetConverter = ucnv_open(BACKUP_CODESET, &status);
  if (U_FAILURE(status) && VDebugRun) {
    traceFormatShort(
        "intlGetICUConverter()->ICU ERROR Code [%i] on ucnv_open() for backupCodeset. \n",
        static_cast<int>(status));
  }
}

/// Opens a converter when no fork is under way: ICU takes locks that a child could never take
/// again.
int32_t openLocked(const char* codeset) {
  if (VCodesetConverter != nullptr) return INTL_ERR_ALREADY_OPEN;
  if (!VConverterGate.Enter(VCodesetMutex)) return INTL_ERR_CONVERSION;
  // The mutex may have been given back meanwhile, and another thread have opened one.
  const int32_t result = intlGetICUConverter(codeset);
  VConverterGate.Leave();
  return result;
}

int32_t convertLocked(const char* source, long capacity, UChar* work, char* target) {
  if (VCodesetConverter == nullptr) {
    const int32_t opened = openLocked(nullptr);
    if (VCodesetConverter == nullptr) return opened;
  }
  const auto size = static_cast<int32_t>(capacity);
  UErrorCode status = U_ZERO_ERROR;
  const int32_t units = ucnv_toUChars(VCodesetConverter, work, size, source, -1, &status);
  if (U_SUCCESS(status)) {
    (void)u_strToUTF8(target, size, nullptr, work, units, &status);
  } else if (VDebugRun) {
    traceFormatShort("ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code [%i] \n",
                     static_cast<int>(status));
  }
  if (U_SUCCESS(status)) return 0;
  // Deliberate (traced-twice): a failed first step comes here too and is traced twice, once under
  // each name.
  if (VDebugRun) {
    traceFormatShort("ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [%i] \n",
                     static_cast<int>(status));
  }
  return INTL_ERR_CONVERSION;
}

}  // namespace

int32_t ensure_ICU_DATA_EnvVarSet(unsigned char lock) {
  if (lock == 0) return putICUDataIntoEnvironment();
  (void)VCodesetMutex.Lock();
  const int32_t result = putICUDataIntoEnvironment();
  (void)VCodesetMutex.Unlock();
  return result;
}

int32_t intlGetICUConverter(const char* codeset) {
  if (VCodesetConverter != nullptr) return INTL_ERR_ALREADY_OPEN;
  const int32_t environment = ensure_ICU_DATA_EnvVarSet(0);
  if (environment != 0) {
    traceText("intlGetICUConverter, ensure_ICU_DATA_EnvVarSet failed.\n");
    return environment;
  }
  openRequested(codeset);
  if (VCodesetConverter == nullptr && codeset == nullptr) openBackup();
  return VCodesetConverter != nullptr ? 0 : INTL_ERR_CONVERSION;
}

int32_t ConvertStrUTF8(const char* source, long capacity, UChar* work, char* target) {
  (void)VCodesetMutex.Lock();
  const int32_t result = convertLocked(source, capacity, work, target);
  (void)VCodesetMutex.Unlock();
  return result;
}

void FreeIntlICUConverter() {
  if (VCodesetConverter == nullptr) return;
  ucnv_close(VCodesetConverter);
  VCodesetConverter = nullptr;
}

ARM_EXPORT arm_int32_t SetExpectedCodeset(const char* codeset) {
  const CCallScope scope;
  (void)VCodesetMutex.Lock();
  const int32_t result = openLocked(codeset);
  (void)VCodesetMutex.Unlock();
  return result;
}

ARM_EXPORT const char* GetExpectedCodeset() {
  const CCallScope scope;
  (void)VCodesetMutex.Lock();
  const char* name = nullptr;
  if (VCodesetConverter != nullptr) {
    UErrorCode status = U_ZERO_ERROR;
    name = ucnv_getName(VCodesetConverter, &status);
  }
  (void)VCodesetMutex.Unlock();
  return name;
}
