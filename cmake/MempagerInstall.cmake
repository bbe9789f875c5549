# Installs in four components: runtime (what a program needs that is linked already), development
# (headers, and what CMake and pkg-config need to find the library), documentation, and, from
# tools/, tools. The target `uninstall` takes it all away again.
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mempager)

install(TARGETS mempager EXPORT mempagerTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    RUNTIME COMPONENT runtime
    ARCHIVE COMPONENT development)
if(WIN32)
    install(FILES ${MEMPAGER_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_FILE_NAME mempager-${PROJECT_VERSION}-windows-x86_64)
    include(CPack)
endif()
install(DIRECTORY inc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mempager COMPONENT development
    FILES_MATCHING PATTERN *.h)

install(EXPORT mempagerTargets NAMESPACE mempager:: DESTINATION ${config_dir} COMPONENT development)
configure_package_config_file(cmake/mempagerConfig.cmake.in
    ${PROJECT_BINARY_DIR}/mempagerConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/mempagerConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mempagerConfig.cmake
              ${PROJECT_BINARY_DIR}/mempagerConfigVersion.cmake
    DESTINATION ${config_dir} COMPONENT development)

# The prefix is told from the place of the .pc file, so that it holds wherever the tree is
# installed or moved. Appending an absolute folder replaces the prefix, as it should.
file(RELATIVE_PATH pc_to_prefix
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
cmake_path(APPEND pc_libdir "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND pc_includedir "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
# Where the dynamic linker doesn't look by itself, the program is told where its library is. That
# depends on the prefix, which is certain only when it is installed: two files, one of which goes.
set(pc_rpath " -Wl,-rpath,\${libdir}")
configure_file(cmake/mempager.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/other/mempager.pc @ONLY)
set(pc_prefix /usr)
set(pc_rpath "")
configure_file(cmake/mempager.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/system/mempager.pc @ONLY)
install(CODE "set(pc_kind other)
if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
    set(pc_kind system)
endif()" COMPONENT development)
install(FILES "${PROJECT_BINARY_DIR}/pkgconfig/\${pc_kind}/mempager.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# As in the source tree, so that the links between the pages hold.
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    PATTERN site EXCLUDE)
if(MEMPAGER_SITE)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/site/
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/html COMPONENT documentation)
endif()

if(NOT TARGET uninstall)
    add_custom_target(uninstall COMMAND
        ${CMAKE_COMMAND} -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
        WORKING_DIRECTORY ${PROJECT_BINARY_DIR} VERBATIM)
endif()
