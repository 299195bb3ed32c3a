# SPDX-License-Identifier: Apache-2.0
# The Debian packages: `scripts/package` makes them for amd64 and i386.
set(KESTREL_MAINTAINER
    "Kestrel maintainers <maintainers@kestrel.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")

if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
else()
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()

set(CPACK_GENERATOR DEB)
# The packages are made of what a build folder has, whatever its own prefix is; only what they hold
# is built for them.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_rpath.cmake)
set(CPACK_PACKAGE_NAME kestrel)
set(CPACK_PACKAGE_VENDOR Kestrel)
set(CPACK_PACKAGE_CONTACT ${KESTREL_MAINTAINER})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# The dependencies are those that the binaries show, as dpkg-shlibdeps knows them.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_config.cmake)
set(CPACK_KESTREL_SHLIBDEPS ${CMAKE_CURRENT_LIST_DIR}/shlibdeps)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(same_version "(= ${PROJECT_VERSION})")

# kestrel_package(COMPONENT NAME SECTION MULTIARCH SUMMARY CONTENTS). CPack has no variable for the
# field Multi-Arch, so it goes after another.
macro(kestrel_package component name section multiarch summary contents)
    set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${component}_PACKAGE_SECTION "${section}\nMulti-Arch: ${multiarch}")
    set(CPACK_DEBIAN_${component}_DESCRIPTION
        "${summary}
Kestrel reads 3GP files through callbacks of the host, also while they
arrive, and delivers one track, speech or video, as a native stream.

${contents}")
endmacro()

if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE STREQUAL i386)
    set(needs_sse2 " They need a processor with SSE2.")
    set(tool_needs_sse2 " It needs a processor with SSE2.")
endif()
set(library_package libkestrel${PROJECT_VERSION_MAJOR})
kestrel_package(LIBRARY ${library_package} libs same "library that reads 3GP files"
                "This package has the shared libraries.${needs_sse2}")
# The control files are ours: those that CPack makes run ldconfig in scripts of the package.
configure_file(cmake/debian/shlibs.in debian/shlibs @ONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/debian/shlibs;${PROJECT_SOURCE_DIR}/cmake/debian/triggers")

kestrel_package(
    DEVELOPMENT libkestrel-dev libdevel same "library that reads 3GP files (development files)"
    "This package has headers with their reference, files for pkg-config and
CMake, documents and examples.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} ${same_version}")

kestrel_package(
    TOOLS kestrel-tools video foreign "command-line tool for 3GP files"
    "This package has the command kestrel, which shows, plays and fixes files.${tool_needs_sse2}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library_package} ${same_version}")

# What every Debian package has: copyright and changelog.
configure_file(cmake/debian/changelog.in debian/changelog @ONLY)
kestrel_gzip(${PROJECT_BINARY_DIR}/debian/changelog ${PROJECT_BINARY_DIR}/debian/changelog.gz)
add_custom_target(kestrel_debian_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.gz)
add_custom_target(kestrel_package_parts DEPENDS kestrel kestrel_hosts kestrel_tool kestrel_man kestrel_documents
                                                kestrel_debian_changelog)
if(TARGET kestrel_reference)
    add_dependencies(kestrel_package_parts kestrel_reference)
endif()
foreach(component library development tools)
    string(TOUPPER ${component} upper)
    install(
        FILES cmake/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
        COMPONENT ${component})
endforeach()

install(
    FILES cmake/debian/README.tools
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kestrel-tools
    RENAME README
    COMPONENT tools)

include(CPack)
