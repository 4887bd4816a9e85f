# What an installation consists of: headers, library, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QuorCore)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS QuorCore EXPORT QuorCoreTargets)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/libQuorCore
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

install(EXPORT QuorCoreTargets NAMESPACE QuorCore:: DESTINATION ${package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuorCoreConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/QuorCoreConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorCoreConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuorCoreConfig.cmake
              ${PROJECT_BINARY_DIR}/QuorCoreConfigVersion.cmake
        DESTINATION ${package_dir})

# The file finds its prefix from where it lies itself, so an installation may be moved.
file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig_dir} /)
set(static_cflag "")
if(QUORCORE_STATIC)
    set(static_cflag "-DQUORCORE_STATIC_DEFINE ")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/libQuorCore.pc.in ${PROJECT_BINARY_DIR}/libQuorCore.pc
               @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libQuorCore.pc DESTINATION ${pkgconfig_dir})
