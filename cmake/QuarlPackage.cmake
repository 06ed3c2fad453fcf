# Installation: the public header, the library, a CMake package that gives
# quarl::quarl to find_package(quarl CONFIG), and a pkg-config file. The
# test build of the library (quarl_testable) is neither installed nor
# exported. The tool installs itself from tools/.
include(CMakePackageConfigHelpers)

set(QUARL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/quarl)

install(TARGETS quarl EXPORT quarlTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES include/quarl/edgeinst.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarl)
install(EXPORT quarlTargets NAMESPACE quarl:: DESTINATION ${QUARL_INSTALL_CMAKEDIR})

configure_package_config_file(cmake/quarlConfig.cmake.in
    ${PROJECT_BINARY_DIR}/quarlConfig.cmake
    INSTALL_DESTINATION ${QUARL_INSTALL_CMAKEDIR})
# Before 1.0 a minor release may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quarlConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quarlConfig.cmake
              ${PROJECT_BINARY_DIR}/quarlConfigVersion.cmake
        DESTINATION ${QUARL_INSTALL_CMAKEDIR})

# The pkg-config file finds the prefix from its own place, so the install
# prefix may be chosen (or changed) at install time.
file(RELATIVE_PATH QUARL_PC_TO_PREFIX
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/quarl.pc.in ${PROJECT_BINARY_DIR}/quarl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quarl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
