# The libraries of the engine program: header-only ones for either width, and with
# ARM_ENGINE_OUTPUTS the interface target arm_outputs with those of its HTTP server and its sending
# of traces.

arm_need_header(nlohmann/json.hpp nlohmann-json3-dev)

if(NOT ARM_ENGINE_OUTPUTS)
  return()
endif()

find_package(PkgConfig REQUIRED)
add_library(arm_outputs INTERFACE)
foreach(pair prometheus-cpp-core:prometheus-cpp-dev cpp-httplib:libcpp-httplib-dev
             libcurl:libcurl4-openssl-dev zlib:zlib1g-dev)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 module)
  list(GET pair 1 package)
  pkg_check_modules(ARM_${module} QUIET IMPORTED_TARGET ${module})
  if(NOT ARM_${module}_FOUND)
    message(FATAL_ERROR "${module} was not found: the package ${package} is missing: apt-get install "
                        "${package}, or configure with -DARM_ENGINE_OUTPUTS=OFF")
  endif()
  target_link_libraries(arm_outputs INTERFACE PkgConfig::ARM_${module})
endforeach()
