# Writes OUTPUT: one CTest test for each case of the GoogleTest program PROGRAM.
# Given: OUTPUT NAME PROGRAM LAUNCHER LABELS SECONDS ENVIRONMENT

foreach(setting ${ENVIRONMENT})
  if(setting MATCHES "^([^=]+)=(.*)$")
    set(ENV{${CMAKE_MATCH_1}} "${CMAKE_MATCH_2}")
  endif()
endforeach()

execute_process(COMMAND ${LAUNCHER} -- ${PROGRAM} --gtest_list_tests
                OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE ${PROGRAM})
  message(FATAL_ERROR "${PROGRAM} cannot list its cases (${result}):\n${listing}")
endif()

# CTest's own clock is only for a test whose watchdog did not fire.
math(EXPR timeout "${SECONDS} + 15")
set(script "")
set(suite "")
string(REGEX MATCHALL "[^\n]+" lines "${listing}")
foreach(line ${lines})
  string(REGEX REPLACE " *#.*$" "" line "${line}")
  if(line MATCHES "^([^ ].*)\\.$")
    set(suite ${CMAKE_MATCH_1})
  elseif(line MATCHES "^  (.+)$")
    set(case ${suite}.${CMAKE_MATCH_1})
    string(REPLACE ";" "]==] [==[" launcher "[==[${LAUNCHER}]==]")
    string(APPEND script
      "add_test([==[${NAME}.${case}]==] ${launcher} -- [==[${PROGRAM}]==]"
      " --gtest_color=no --gtest_filter=${case})\n"
      "set_tests_properties([==[${NAME}.${case}]==] PROPERTIES TIMEOUT ${timeout}"
      " LABELS [==[${LABELS}]==] ENVIRONMENT [==[${ENVIRONMENT};ARM_TEST_SECONDS=${SECONDS}]==])\n")
  endif()
endforeach()
file(WRITE ${OUTPUT} "${script}")
