# cmake --install: headers, both libraries, the command with its manual pages,
# a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(FILES include/qxcrl.h include/qxlayer.h include/r_types.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qxcrl)
install(TARGETS qxcrl qxcrl_static EXPORT qxcrlTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qxcrl_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The command's manual pages, where man finds them under the prefix.
set(QXCRL_MAN_PAGES qxcrl qxcrl-show qxcrl-verify qxcrl-status qxcrl-convert qxcrl-hash
    qxcrl-rehash qxcrl-create qxcrl-revoke qxcrl-next-update qxcrl-fetch qxcrl-store
    qxcrl-stored qxcrl-demo)
list(TRANSFORM QXCRL_MAN_PAGES PREPEND ${PROJECT_SOURCE_DIR}/man/)
list(TRANSFORM QXCRL_MAN_PAGES APPEND .1)
install(FILES ${QXCRL_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(EXPORT qxcrlTargets NAMESPACE qxcrl::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qxcrl)

configure_package_config_file(cmake/qxcrlConfig.cmake.in
    ${PROJECT_BINARY_DIR}/qxcrlConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qxcrl)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qxcrlConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qxcrlConfig.cmake
              ${PROJECT_BINARY_DIR}/qxcrlConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qxcrl)

# Relative to the .pc file, so that an install under any --prefix works.
file(RELATIVE_PATH QXCRL_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/qxcrl.pc.in ${PROJECT_BINARY_DIR}/qxcrl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxcrl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
