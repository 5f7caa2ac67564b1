# What one program, its neighbours and the machine may do to the library.

arm_test(NAME test_hostile TIMEOUT 120 CHECK_IPC
  LIBS arm arm_call_test ${CMAKE_DL_LIBS}
  SOURCES hostile_test.cpp hostile_calls.cpp hostile_queues.cpp hostile_guard.cpp)

# Not under sanitizers: it traces, see CMakeLists.txt.
if(NOT ARM_SANITIZE)
  arm_test(NAME test_hostile_moments AREA moments TIMEOUT 120 CHECK_IPC
    LIBS arm arm_call_test reliability_kill ${CMAKE_DL_LIBS}
    SOURCES hostile_moments_test.cpp hostile_calls.cpp hostile_queues.cpp hostile_guard.cpp)
endif()

# A program of fork_calls.cpp and its own source: one linked with the library, one opening it.
function(arm_test_program_linked_and_opened name)
  foreach(kind linked opened)
    arm_test_program(NAME ${name}_${kind} SOURCES ${name}_client.cpp fork_calls.cpp
      LIBS $<$<STREQUAL:${kind},linked>:arm> ${CMAKE_DL_LIBS})
    target_include_directories(${name}_${kind} PRIVATE
      ${PROJECT_SOURCE_DIR}/tests/calls ${PROJECT_SOURCE_DIR}/include)
  endforeach()
  string(TOUPPER ${name} macro)
  target_compile_definitions(${name}_opened PRIVATE
    ${macro}_LIBRARY="${PROJECT_BINARY_DIR}/lib/libarm.so")
endfunction()

# Not under sanitizers: their allocators' locks, held by another thread of the parent's, stay held
# in a child.
if(NOT ARM_SANITIZE)
  arm_test_program(NAME fork_client SOURCES fork_client.cpp fork_calls.cpp LIBS arm)
  target_include_directories(fork_client PRIVATE ${PROJECT_SOURCE_DIR}/tests/calls)

  arm_test(NAME test_fork TIMEOUT 120 CHECK_IPC DEPENDS fork_client scripted_engine
    LIBS arm arm_call_test SOURCES fork_test.cpp fork_calls.cpp)

  arm_test_program_linked_and_opened(fork_handlers)
  arm_test(NAME test_fork_handlers TIMEOUT 120 CHECK_IPC
    DEPENDS arm fork_handlers_linked fork_handlers_opened scripted_engine
    LIBS arm_call_test SOURCES fork_handlers_test.cpp)
endif()

arm_test_program_linked_and_opened(load_exit)
arm_test_program(NAME load_copies_client SOURCES load_copies_client.cpp fork_calls.cpp
  LIBS ${CMAKE_DL_LIBS})
target_include_directories(load_copies_client PRIVATE
  ${PROJECT_SOURCE_DIR}/tests/calls ${PROJECT_SOURCE_DIR}/include)

arm_test(NAME test_load TIMEOUT 120 CHECK_IPC
  DEPENDS arm load_exit_linked load_exit_opened load_copies_client scripted_engine
  LIBS arm_call_test ${CMAKE_DL_LIBS} SOURCES load_test.cpp fork_calls.cpp)
# The library finds this program's ftok.
set_target_properties(test_load PROPERTIES ENABLE_EXPORTS ON)

arm_test(NAME test_signals TIMEOUT 120 CHECK_IPC LIBS arm arm_call_test
  SOURCES signals_test.cpp)

arm_test(NAME test_environment TIMEOUT 120 LIBS arm arm_call_test
  SOURCES environment_test.cpp)

# The sanitizers have frames and a malloc of their own, and do not fork in signal handlers.
if(NOT ARM_SANITIZE)
  arm_test(NAME test_fork_signal AREA moments TIMEOUT 120 CHECK_IPC DEPENDS scripted_engine
    LIBS arm arm_call_test SOURCES fork_signal_test.cpp fork_calls.cpp)
  arm_test(NAME test_stack TIMEOUT 120 CHECK_IPC DEPENDS scripted_engine
    LIBS arm arm_call_test SOURCES stack_test.cpp)
endif()

arm_test(NAME test_limits TIMEOUT 120 CHECK_IPC DEPENDS scripted_engine armengine
  LIBS arm arm_call_test reliability_team ${ARM_ICU_UC_LIBRARY} SOURCES limits_test.cpp)
target_include_directories(test_limits SYSTEM PRIVATE ${ARM_ICU_INCLUDE_DIR})
