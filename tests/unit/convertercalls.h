#pragma once

#include <unicode/ucnv.h>

#include "calls.h"

namespace calls {

/// ucnv_open.  Only programs that link ICU have it.
extern Call<UConverter*(const char*, UErrorCode*)> openConverter;

}  // namespace calls
