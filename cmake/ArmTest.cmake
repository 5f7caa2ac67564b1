# Tests: GoogleTest, every case a CTest test of its own that runs alone in fresh namespaces.
#
#   arm_test(NAME program SOURCES file... [LIBS library...] [LABELS label...] [TIMEOUT seconds]
#            [CHECK_IPC] [DEPENDS target...] [LAUNCHER option...] [AREA area])
#     TIMEOUT    seconds per case, 30 by default, times four under sanitizers
#     CHECK_IPC  a case that leaves System V objects behind fails
#     DEPENDS    programs that the cases start
#     LAUNCHER   further options of the command that runs a case
#     AREA       a label, and a part of the target tests_AREA; the folder's name by default
#
#   arm_test_program(NAME program SOURCES file... [LIBS library...])
#     a program that tests start
#
#   arm_test_environment(test...)
#     gives tests made with add_test the environment of the others
#
# ARM_TEST_LAUNCHER is the command, as a list, that runs a program in fresh namespaces. Code sees
# the macros ARM_SOURCE_DIR, ARM_BUILD_DIR and ARM_OTHER_BUILD_DIR (strings).

if(NOT BUILD_TESTING)
  return()
endif()

# Debian has GoogleTest compiled for the machine's own width, and its sources.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  find_library(ARM_GTEST_LIBRARY libgtest.a)
  if(NOT ARM_GTEST_LIBRARY)
    message(FATAL_ERROR "GoogleTest was not found: the package libgtest-dev is missing: "
                        "apt-get install libgtest-dev")
  endif()
  add_library(gtest INTERFACE)
  target_link_libraries(gtest INTERFACE ${ARM_GTEST_LIBRARY} Threads::Threads)
else()
  set(ARM_GTEST_DIR /usr/src/googletest CACHE PATH "GoogleTest's sources")
  if(NOT EXISTS ${ARM_GTEST_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "GoogleTest's sources were not found: the package googletest is missing: "
                        "apt-get install googletest")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(${ARM_GTEST_DIR} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  target_compile_options(gtest PRIVATE -O0 -g1)
  if(ARM_SANITIZE MATCHES undefined)
    target_compile_options(gtest PRIVATE -fno-sanitize=undefined)
  endif()
endif()

set(ARM_TEST_TIME_FACTOR 1)
set(ARM_TEST_LAUNCHER $<TARGET_FILE:nsrun> --keep ${PROJECT_SOURCE_DIR})
if(ARM_SANITIZE)
  set(ARM_TEST_TIME_FACTOR 4)
  # The sanitizers' fixed shadow areas collide with widely randomised addresses.
  list(APPEND ARM_TEST_LAUNCHER --no-aslr)
endif()

set(ARM_TEST_ENVIRONMENT
  ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:check_initialization_order=1
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp:print_suppressions=0
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=${PROJECT_SOURCE_DIR}/tests/support/tsan.supp
  LD_LIBRARY_PATH=${PROJECT_SOURCE_DIR}/build/sysroot-i386/usr/lib/i386-linux-gnu)

function(arm_test_program)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME" "SOURCES;LIBS")
  add_executable(${arg_NAME} ${arg_SOURCES})
  target_link_libraries(${arg_NAME} PRIVATE ${arg_LIBS} arm_warnings Threads::Threads)
  # Compile time counts more than run time here.
  target_compile_options(${arg_NAME} PRIVATE -O0 -g1)
  # What is looked for is the library's behaviour, not the tests'; memory is still watched here,
  # since the library writes into theirs.
  if(ARM_SANITIZE MATCHES undefined)
    target_compile_options(${arg_NAME} PRIVATE -fno-sanitize=undefined)
  endif()
  target_include_directories(${arg_NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  target_compile_definitions(${arg_NAME} PRIVATE
    ARM_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    ARM_BUILD_DIR="${PROJECT_BINARY_DIR}"
    ARM_OTHER_BUILD_DIR="${ARM_OTHER_WIDTH_BUILD}")
endfunction()

function(arm_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "CHECK_IPC" "NAME;TIMEOUT;AREA"
    "SOURCES;LIBS;LABELS;DEPENDS;LAUNCHER")
  if(NOT arg_AREA)
    set(arg_AREA ${ARM_TEST_AREA})
  endif()
  if(NOT TARGET tests_${arg_AREA})
    add_custom_target(tests_${arg_AREA})
  endif()
  add_dependencies(tests_${arg_AREA} ${arg_NAME})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 30)
  endif()
  math(EXPR seconds "${arg_TIMEOUT} * ${ARM_TEST_TIME_FACTOR}")
  arm_test_program(NAME ${arg_NAME} SOURCES ${arg_SOURCES} LIBS ${arg_LIBS} arm_test_main)
  # The precompiled header is one of C++.
  if(NOT arg_SOURCES MATCHES "\\.c(;|$)")
    target_precompile_headers(${arg_NAME} REUSE_FROM arm_test_precompiled)
  endif()
  arm_unity(${arg_NAME})
  add_dependencies(${arg_NAME} nsrun ${arg_DEPENDS})
  set(launcher ${ARM_TEST_LAUNCHER} ${arg_LAUNCHER})
  if(arg_CHECK_IPC)
    list(APPEND launcher --check-ipc)
  endif()
  arm_register_cases(${arg_NAME} "${launcher}" "${arg_AREA};${arg_LABELS}" ${seconds})
endfunction()

# Lists the program's cases after each build of it; an unbuilt program is one failing test.
function(arm_register_cases program launcher labels seconds)
  set(cases ${CMAKE_CURRENT_BINARY_DIR}/${program}-cases.cmake)
  add_custom_command(TARGET ${program} POST_BUILD VERBATIM
    BYPRODUCTS ${cases}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${cases} -DNAME=${program}
            -DPROGRAM=$<TARGET_FILE:${program}> "-DLAUNCHER=${launcher}" "-DLABELS=${labels}"
            -DSECONDS=${seconds} "-DENVIRONMENT=${ARM_TEST_ENVIRONMENT}"
            -P ${PROJECT_SOURCE_DIR}/cmake/ListCases.cmake)
  set(include_file ${CMAKE_CURRENT_BINARY_DIR}/${program}-include.cmake)
  file(WRITE ${include_file}
    "if(EXISTS \"${cases}\")\n  include(\"${cases}\")\n"
    "else()\n  add_test(${program}.IsNotBuilt ${program}.IsNotBuilt)\n"
    "  set_tests_properties(${program}.IsNotBuilt PROPERTIES LABELS \"${labels}\")\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include_file})
endfunction()

function(arm_test_environment)
  set_tests_properties(${ARGN} PROPERTIES ENVIRONMENT "${ARM_TEST_ENVIRONMENT}")
endfunction()
