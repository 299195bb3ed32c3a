# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where, in three components that are the three Debian packages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(kestrel_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrel)

install(
    TARGETS kestrel kestrel_hosts
    EXPORT KestrelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(
    EXPORT KestrelTargets
    NAMESPACE Kestrel::
    DESTINATION ${kestrel_cmake_dir}
    COMPONENT development)
install(
    DIRECTORY include/kestrel
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.h")

configure_package_config_file(cmake/KestrelConfig.cmake.in KestrelConfig.cmake
                              INSTALL_DESTINATION ${kestrel_cmake_dir})
write_basic_package_version_file(KestrelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
    FILES ${PROJECT_BINARY_DIR}/KestrelConfig.cmake ${PROJECT_BINARY_DIR}/KestrelConfigVersion.cmake
    DESTINATION ${kestrel_cmake_dir}
    COMPONENT development)

# The prefix is found from where the file lies, so that `cmake --install --prefix` may choose it.
file(RELATIVE_PATH KESTREL_PC_UP /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KESTREL_PC_UP "${KESTREL_PC_UP}")
foreach(name kestrel kestrel-hosts)
    configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
    install(
        FILES ${PROJECT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
endforeach()
# Made by the target kestrel_documents.
install(
    DIRECTORY ${KESTREL_DOCUMENTS_DIR}/
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libkestrel-dev
    USE_SOURCE_PERMISSIONS
    COMPONENT development)
# Made by the target kestrel_reference.
install(
    DIRECTORY ${KESTREL_REFERENCE_DIR}/html
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libkestrel-dev
    COMPONENT development
    OPTIONAL)
install(
    DIRECTORY ${KESTREL_REFERENCE_DIR}/man3
    DESTINATION ${CMAKE_INSTALL_MANDIR}
    COMPONENT development
    OPTIONAL)

# Outside /usr, where the loader may not look, the tool finds its libraries from where it lies.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH bin_to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(kestrel_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
endif()
install(TARGETS kestrel_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(
    FILES tools/completion/kestrel
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
    COMPONENT tools)
install(
    DIRECTORY ${KESTREL_MAN_DIR}/
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tools
    FILES_MATCHING
    PATTERN "*.1.gz")
