# Installs the library, its headers, and what CMake and pkg-config need to find them.
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mempager)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS mempager EXPORT mempagerTargets)
install(DIRECTORY inc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mempager FILES_MATCHING PATTERN *.h)
install(FILES README.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

install(EXPORT mempagerTargets NAMESPACE mempager:: DESTINATION ${config_dir})
configure_package_config_file(cmake/mempagerConfig.cmake.in
    ${PROJECT_BINARY_DIR}/mempagerConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/mempagerConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mempagerConfig.cmake
              ${PROJECT_BINARY_DIR}/mempagerConfigVersion.cmake DESTINATION ${config_dir})

# The prefix is told from the place of the .pc file, so that it holds wherever the tree is
# installed or moved. Appending an absolute folder replaces the prefix, as it should.
file(RELATIVE_PATH pc_to_prefix
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
cmake_path(APPEND pc_libdir "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND pc_includedir "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(cmake/mempager.pc.in ${PROJECT_BINARY_DIR}/mempager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mempager.pc DESTINATION ${pkgconfig_dir})
