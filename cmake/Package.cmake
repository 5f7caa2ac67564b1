# 'cmake --install': the library, its headers, and the files that pkg-config and find_package read.

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/arm)

install(TARGETS arm EXPORT armTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/arm.h ${PROJECT_SOURCE_DIR}/include/armext.h
              ${PROJECT_SOURCE_DIR}/include/arm.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT armTargets NAMESPACE arm:: DESTINATION ${package_dir})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/armConfig.cmake.in
  ${PROJECT_BINARY_DIR}/armConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/armConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/armConfig.cmake ${PROJECT_BINARY_DIR}/armConfigVersion.cmake
        DESTINATION ${package_dir})

# Relative, so that the installed tree may be moved; but the system's own directories must be named
# as such, for pkg-config to leave them out.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(package_prefix /usr)
else()
  file(RELATIVE_PATH package_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "^(.*)/$" "\${pcfiledir}/\\1" package_prefix ${package_prefix})
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/libarm.pc.in ${PROJECT_BINARY_DIR}/libarm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libarm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
