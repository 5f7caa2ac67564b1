#include "convertercalls.h"

#define TEXT_OF(token) #token
#define TEXT_OF_VALUE(macro) TEXT_OF(macro)

extern "C" UConverter* realOpenConverter(const char* name, UErrorCode* status) __asm__(
    "__real_" TEXT_OF_VALUE(ucnv_open));
extern "C" UConverter* wrapOpenConverter(const char* name, UErrorCode* status) __asm__(
    "__wrap_" TEXT_OF_VALUE(ucnv_open));

namespace armtest::calls {
Call<UConverter*(const char*, UErrorCode*)> open_converter(realOpenConverter);
}

UConverter* wrapOpenConverter(const char* name, UErrorCode* status) {
  return armtest::calls::open_converter(name, status);
}
