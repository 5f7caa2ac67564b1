#pragma once

#include <unicode/ucnv.h>

#include "calls.h"

namespace armtest::calls {

/// ucnv_open.  Only programs that link ICU have it.
extern Call<UConverter*(const char*, UErrorCode*)> open_converter;

}  // namespace armtest::calls
