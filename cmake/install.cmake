# What `cmake --install` lays down: the shared library, its public headers as they lie, the CMake package
# orvanta-cms (target orvanta::cms), the pkg-config file, the orvanta command line with its man pages
# and its bash completion, and the test camera, which uses nothing of the library. The components are the packages of cmake/packages.cmake.
include(CMakePackageConfigHelpers)

install(TARGETS orvanta-cms EXPORT orvanta-cms-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/cms DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orvanta-cms)
# Where it was not built, or is not installed, the package orvanta-cms has no target orvanta::view.
if(TARGET orvanta-cms-view)
  install(TARGETS orvanta-cms-view EXPORT orvanta-cms-view-targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT view NAMELINK_COMPONENT view_development)
  install(EXPORT orvanta-cms-view-targets NAMESPACE orvanta:: DESTINATION ${package_dir}
          COMPONENT view_development)
endif()
install(EXPORT orvanta-cms-targets NAMESPACE orvanta:: DESTINATION ${package_dir}
        COMPONENT development)
configure_package_config_file(cmake/orvanta-cms-config.cmake.in orvanta-cms-config.cmake
                              INSTALL_DESTINATION ${package_dir})
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(orvanta-cms-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvanta-cms-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/orvanta-cms-config-version.cmake
        DESTINATION ${package_dir} COMPONENT development)

# The pkg-config file finds its own prefix, so that an installed tree can be moved.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(pc_to_prefix ${CMAKE_INSTALL_PREFIX})
cmake_path(RELATIVE_PATH pc_to_prefix BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir})
configure_file(cmake/orvanta-cms.pc.in orvanta-cms.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvanta-cms.pc DESTINATION ${pkgconfig_dir}
        COMPONENT development)

# Headers refer to the guides, and applications start from the examples. The packages have places of their
# own for both.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvanta-cms COMPONENT documents)

if(TARGET orvanta)
  # The tool finds the library that it was installed with; in /usr the system does that.
  set(library_users orvanta orvanta-fleet)
  if(TARGET orvanta-view)
    list(APPEND library_users orvanta-view)
    install(TARGETS orvanta-view RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT view)
  endif()
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(bin_to_lib ${CMAKE_INSTALL_FULL_LIBDIR})
    cmake_path(RELATIVE_PATH bin_to_lib BASE_DIRECTORY ${CMAKE_INSTALL_FULL_BINDIR})
    set_target_properties(${library_users} PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  endif()
  install(TARGETS orvanta orvanta-camera RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(TARGETS orvanta-fleet RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT fleet)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/tools/manual/man1 DESTINATION ${CMAKE_INSTALL_MANDIR}
          COMPONENT tools)
  install(FILES ${PROJECT_BINARY_DIR}/tools/manual/completions/orvanta COMPONENT tools
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()
