#pragma once

#include <unicode/umachine.h>

#include <cstdint>

// The process's one converter from the expected code set to UTF-8.  The exported calls
// SetExpectedCodeset and GetExpectedCodeset are declared in armext.h.

struct UConverter;

/// The converter, null until it is opened.  Guarded by VCodesetMutex.
extern UConverter* VCodesetConverter;
/// The setting of ICU_DATA, null until it is made.  Never freed: the environment keeps pointing at
/// it. Guarded by VCodesetMutex.
extern char* env_ICU_DATA;

/// The ICU data directory could not be put into the environment.
inline constexpr int32_t INTL_ERR_ENVIRONMENT = -3;
/// No converter could be opened, or a conversion failed.
inline constexpr int32_t INTL_ERR_CONVERSION = -1003;
/// A converter is open already.
inline constexpr int32_t INTL_ERR_ALREADY_OPEN = -3004;

/// Converts the zero-terminated source from the expected code set to UTF-8 in target.  capacity is
/// the size of work in 16-bit units and of target in bytes.  Opens the converter of the process's
/// locale when none is open.  Output that fills target exactly is not terminated; output that does
/// not fit is -1003, with what was written left in target.  Any thread: VCodesetMutex is held
/// throughout.
///
/// 0, -3 or -1003.
int32_t ConvertStrUTF8(const char* source, long capacity, UChar* work, char* target);

/// Closes the converter if one is open.  Takes no lock.
void FreeIntlICUConverter();

/// Opens the converter of a code set, null meaning that of the process's locale, which falls back
/// to US-ASCII.  The caller holds VCodesetMutex.  0, -3, -1003 or -3004.
int32_t intlGetICUConverter(const char* codeset);

/// Points ICU at the library's data directory, once, through the environment; a value that the
/// application had set is replaced.  A non-zero flag takes VCodesetMutex.  0 or -3.
int32_t ensure_ICU_DATA_EnvVarSet(unsigned char lock);
