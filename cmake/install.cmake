include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS kiv_http EXPORT kiv_httpTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/core DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(EXPORT kiv_httpTargets NAMESPACE kiv:: FILE kiv_httpTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_http)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kiv_httpConfig.cmake.in
    ${PROJECT_BINARY_DIR}/kiv_httpConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_http)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kiv_httpConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kiv_httpConfig.cmake
              ${PROJECT_BINARY_DIR}/kiv_httpConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_http)
