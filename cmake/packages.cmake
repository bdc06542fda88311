# `cpack -G DEB` makes three Debian packages: the library, what is needed to build with it, and the
# command line. packaging/build_packages.sh does it from a clean tree for /usr.
set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(runtime_package liborvanta-cms${soversion})
set(development_package liborvanta-cms-dev)
set(tools_package orvanta-cms-tools)

set(CPACK_PACKAGE_NAME orvanta-cms)
set(CPACK_PACKAGE_VENDOR "Orvanta")
set(CPACK_PACKAGE_CONTACT "Orvanta CMS packagers <packages@orvanta-cms.invalid>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the library beside the tools, and the package it is in by the names below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/cms)

set(about "Orvanta CMS is a library for clients of video-surveillance cameras and
recorders: live RTSP and HTTP streams, decoding, recording, search and
playback, camera configuration, embedded HTTP and TCP servers.
.
")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${about}This package has the shared library.")
# The soname holds for one minor version.
set(control_files ${PROJECT_BINARY_DIR}/package_control)
file(CONFIGURE OUTPUT ${control_files}/shlibs NEWLINE_STYLE UNIX CONTENT
     "liborvanta-cms ${soversion} ${runtime_package} (>= ${PROJECT_VERSION})\n")
file(CONFIGURE OUTPUT ${control_files}/triggers NEWLINE_STYLE UNIX CONTENT
     "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control_files}/shlibs ${control_files}/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${runtime_package} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "${about}This package has what programs are built with: the headers, the CMake
package orvanta-cms, the pkg-config file and examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${runtime_package} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
# Only the test camera plays with these.
string(CONCAT CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS
       "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, "
       "gstreamer1.0-plugins-ugly, gstreamer1.0-libav")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "${about}This package has the orvanta command with its man pages and its completion,
and the test camera that it starts.")

# What every Debian package has in its folder of documents.
find_program(GZIP gzip REQUIRED)
set(package_documents ${PROJECT_BINARY_DIR}/package_documents)
file(MAKE_DIRECTORY ${package_documents})
foreach(pair IN ITEMS "CHANGELOG.md|changelog" "packaging/changelog|changelog.Debian")
  string(REPLACE "|" ";" pair ${pair})
  list(GET pair 0 source)
  list(GET pair 1 name)
  execute_process(COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/${source}
                  OUTPUT_FILE ${package_documents}/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${source})
endforeach()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  install(FILES packaging/copyright ${package_documents}/changelog.gz
                ${package_documents}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${${component}_package}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
install(DIRECTORY examples/ COMPONENT development EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${development_package}/examples
        FILES_MATCHING PATTERN "*.cpp")
install(DIRECTORY docs/ COMPONENT development EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${development_package}/docs
        FILES_MATCHING PATTERN "*.md")

include(CPack)
