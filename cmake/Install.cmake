include(CMakePackageConfigHelpers)

install(TARGETS kestrune kestrune_static EXPORT KestruneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kestrune-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrune
        FILES_MATCHING PATTERN "*.h")

set(KESTRUNE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrune)
install(EXPORT KestruneTargets NAMESPACE Kestrune:: DESTINATION ${KESTRUNE_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestruneConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/KestruneConfig.cmake
                              INSTALL_DESTINATION ${KESTRUNE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestruneConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestruneConfig.cmake
              ${PROJECT_BINARY_DIR}/KestruneConfigVersion.cmake
        DESTINATION ${KESTRUNE_CMAKE_DIR})

file(RELATIVE_PATH KESTRUNE_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${PROJECT_SOURCE_DIR}/cmake/kestrune.pc.in ${PROJECT_BINARY_DIR}/kestrune.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kestrune.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
