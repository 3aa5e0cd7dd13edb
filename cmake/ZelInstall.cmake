# Installs the library, its headers, a pkg-config file and a CMake package.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS zelapi EXPORT zelapiTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
file(GLOB zel_public_headers ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${zel_public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT zelapiTargets NAMESPACE zelapi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelapi)

configure_package_config_file(cmake/zelapiConfig.cmake.in
    ${PROJECT_BINARY_DIR}/zelapiConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelapi)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelapiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelapiConfig.cmake ${PROJECT_BINARY_DIR}/zelapiConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelapi)

file(RELATIVE_PATH ZEL_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zelapi.pc.in ${PROJECT_BINARY_DIR}/zelapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
