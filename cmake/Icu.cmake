# Finds ICU's common library for the width that is being built:
#   ARM_ICU_INCLUDE_DIR, ARM_ICU_UC_LIBRARY, ARM_ICU_LIBRARY_DIR

if(ARM_I386_SYSROOT)
  # The 64-bit library of the machine must never be picked up instead.
  set(arm_icu_where NO_DEFAULT_PATH PATHS ${ARM_I386_SYSROOT})
  set(arm_icu_advice "the packages libicu72:i386 and libicu-dev:i386 (unpacked to "
      "build/sysroot-i386) are missing: './run build i386' fetches them")
else()
  set(arm_icu_where)
  set(arm_icu_advice "the package libicu-dev is missing: apt-get install libicu-dev")
endif()

find_path(ARM_ICU_INCLUDE_DIR unicode/ucnv.h ${arm_icu_where} PATH_SUFFIXES usr/include)
find_library(ARM_ICU_UC_LIBRARY icuuc ${arm_icu_where} PATH_SUFFIXES usr/lib/i386-linux-gnu)
if(NOT ARM_ICU_INCLUDE_DIR OR NOT ARM_ICU_UC_LIBRARY)
  message(FATAL_ERROR "ICU was not found: " ${arm_icu_advice})
endif()
get_filename_component(ARM_ICU_LIBRARY_DIR ${ARM_ICU_UC_LIBRARY} DIRECTORY)
