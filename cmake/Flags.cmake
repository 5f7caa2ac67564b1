# Flags shared by every target, and the interface target arm_warnings.

set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()
# Little debug information by itself, and none in the trees that only the compiler's warnings are
# for: the sources are compiled seven times by './run test'.
set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O2 -g1")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")
set(CMAKE_C_FLAGS_DEBUG "-O0")
set(CMAKE_CXX_FLAGS_DEBUG "-O0")

# 32-bit files and stamps must outlive 2038 and large inode numbers.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# Whole targets compiled as one source take half the time. The clang trees keep every file by
# itself: the lint reads them, and a file that lacks a header shows there.
option(ARM_UNITY "Compile tests, engine and programs with all sources of a target together" OFF)
function(arm_unity)
  if(ARM_UNITY)
    set_target_properties(${ARGN} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
  endif()
endfunction()

find_package(Threads REQUIRED)

# ---- sanitizers ---------------------------------------------------------------------------------

set(ARM_SANITIZE "" CACHE STRING "Sanitizers: empty, 'address,undefined' or 'thread'")
if(ARM_SANITIZE)
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O1 -g1")
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")
  add_compile_options(-fsanitize=${ARM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ARM_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    # gcc defines these by itself.
    if(ARM_SANITIZE STREQUAL "thread")
      add_compile_definitions(__SANITIZE_THREAD__)
    else()
      add_compile_definitions(__SANITIZE_ADDRESS__)
    endif()
  endif()
  # Tests intercept the calls of their programs, among which those of the sanitizer's runtime must
  # not be.
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang AND NOT ARM_FUZZ)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir OUTPUT_VARIABLE runtime
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    add_link_options(-shared-libsan -Wl,-rpath,${runtime})
  endif()
endif()
# The fuzzers follow which code an input reaches.
if(ARM_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# ---- warnings -----------------------------------------------------------------------------------

add_library(arm_warnings INTERFACE)
target_compile_options(arm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wdouble-promotion -Wformat=2
  -Wcast-qual -Wcast-align -Wundef -Wvla -Wimplicit-fallthrough -Wnull-dereference
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes;-Wmissing-prototypes;-Wold-style-definition>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast;-Wnon-virtual-dtor;-Woverloaded-virtual;-Wextra-semi>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond;-Wlogical-op;-Wformat-signedness>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wmissing-prototypes;-Wthread-safety>)

# Instrumented code makes gcc's flow analysis see paths that do not exist.
if(ARM_SANITIZE)
  target_compile_options(arm_warnings INTERFACE -Wno-null-dereference
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
else()
  target_compile_options(arm_warnings INTERFACE -Werror)
endif()
if(ARM_SANITIZE STREQUAL "thread")
  target_sources(arm_warnings INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${PROJECT_SOURCE_DIR}/tests/support/tsanstart.cpp>)
endif()
