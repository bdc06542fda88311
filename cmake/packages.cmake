# `cpack -G DEB` makes Debian packages: the library, what is needed to build with it, the command line, the recorder
# as a service, the fleet of recorders, and the viewer. packaging/build_packages.sh does it from a clean tree for /usr.
set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(runtime_package liborvanta-cms${soversion})
set(development_package liborvanta-cms-dev)
set(tools_package orvanta-cms-tools)
set(recorder_package orvanta-recorder)
set(fleet_package orvanta-fleet)
set(view_package orvanta-cms-view)

set(CPACK_PACKAGE_NAME orvanta-cms)
set(CPACK_PACKAGE_VENDOR "Orvanta")
set(CPACK_PACKAGE_CONTACT "Orvanta CMS packagers <packages@orvanta-cms.invalid>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tools recorder fleet)
if(ORVANTA_VIEW)
  list(APPEND CPACK_COMPONENTS_ALL view)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the library beside the tools, and the package it is in by the names below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/cms ${PROJECT_BINARY_DIR}/cms/view)

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

set(CPACK_DEBIAN_RECORDER_PACKAGE_NAME ${recorder_package})
set(CPACK_DEBIAN_RECORDER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_RECORDER_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_RECORDER_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_RECORDER_PACKAGE_DEPENDS "${tools_package} (>= ${PROJECT_VERSION}), adduser, tzdata")
set(CPACK_DEBIAN_RECORDER_DESCRIPTION
    "${about}This package records cameras as a service: a systemd unit with a user of its
own, an example of its configuration and its man page.")
set(recorder_files ${PROJECT_SOURCE_DIR}/packaging/recorder)
set(CPACK_DEBIAN_RECORDER_PACKAGE_CONTROL_EXTRA ${recorder_files}/postinst ${recorder_files}/prerm
                                                ${recorder_files}/postrm)
set(CPACK_DEBIAN_RECORDER_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

set(CPACK_DEBIAN_FLEET_PACKAGE_NAME ${fleet_package})
set(CPACK_DEBIAN_FLEET_PACKAGE_SECTION video)
# The recorder's package makes the user.
set(CPACK_DEBIAN_FLEET_PACKAGE_DEPENDS
    "${tools_package} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), ${recorder_package} (>= ${PROJECT_VERSION})")
# The engine runs where its administrator has it.
set(CPACK_DEBIAN_FLEET_PACKAGE_SUGGESTS "etcd-server")
set(CPACK_DEBIAN_FLEET_DESCRIPTION
    "${about}This package makes recorders of several machines one fleet: cameras are
shared out among them, and those of a machine that dies are taken over. It
needs an etcd, on these or on other machines.")

set(CPACK_DEBIAN_VIEW_PACKAGE_NAME ${view_package})
set(CPACK_DEBIAN_VIEW_PACKAGE_SECTION video)
set(CPACK_DEBIAN_VIEW_PACKAGE_DEPENDS
    "${tools_package} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
# Texts in the window need a font, of whatever package.
set(CPACK_DEBIAN_VIEW_PACKAGE_RECOMMENDS fonts-dejavu-core)
set(CPACK_DEBIAN_VIEW_DESCRIPTION
    "${about}This package has the viewer that \"orvanta view\" starts, and the library that
it draws with.")
file(CONFIGURE OUTPUT ${control_files}/view/shlibs NEWLINE_STYLE UNIX CONTENT
     "liborvanta-cms-view ${soversion} ${view_package} (>= ${PROJECT_VERSION})\n")
file(COPY ${control_files}/triggers DESTINATION ${control_files}/view)
set(CPACK_DEBIAN_VIEW_PACKAGE_CONTROL_EXTRA ${control_files}/view/shlibs ${control_files}/view/triggers)

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
set(recorder_page ${package_documents}/orvanta-recorder.8.gz)
execute_process(COMMAND ${GZIP} -9nc ${recorder_files}/orvanta-recorder.8 OUTPUT_FILE ${recorder_page}
                COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${recorder_files}/orvanta-recorder.8)
install(FILES ${recorder_page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
        COMPONENT recorder EXCLUDE_FROM_ALL)
install(FILES ${recorder_files}/orvanta-recorder.service DESTINATION lib/systemd/system
        COMPONENT recorder EXCLUDE_FROM_ALL)
install(FILES packaging/fleet/orvanta-fleet.service DESTINATION lib/systemd/system
        COMPONENT fleet EXCLUDE_FROM_ALL)
install(FILES packaging/fleet/orvanta-fleet.rules DESTINATION share/doc/${fleet_package}/examples
        COMPONENT fleet EXCLUDE_FROM_ALL)
install(FILES packaging/recorder.toml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${recorder_package}/examples
        COMPONENT recorder EXCLUDE_FROM_ALL)
install(DIRECTORY examples/ COMPONENT development EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${development_package}/examples
        FILES_MATCHING PATTERN "*.cpp")
install(DIRECTORY docs/ COMPONENT development EXCLUDE_FROM_ALL
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${development_package}/docs
        FILES_MATCHING PATTERN "*.md")

include(CPack)
