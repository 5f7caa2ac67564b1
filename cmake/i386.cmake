# Compiles for 32-bit x86 with the machine's own compilers. ICU's 32-bit files come from a private
# directory, so that the machine's package architectures stay as they are.
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
if(NOT ARM_I386_SYSROOT)
  set(ARM_I386_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-i386)
endif()
