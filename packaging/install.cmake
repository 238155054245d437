# What `cmake --install` puts where, and the Debian package that `cpack` makes of it.
include(CMakePackageConfigHelpers)

install(TARGETS vqpack)
install(TARGETS vqcomp EXPORT vqpack)
install(FILES coder/vqcomp.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vqpack)

# find_package(vqpack) and pkg-config; both find the tree wherever it has been moved to.
set(cmake_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vqpack)
install(EXPORT vqpack FILE vqpack-config.cmake NAMESPACE vqpack:: DESTINATION ${cmake_package_dir})
write_basic_package_version_file(vqpack-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vqpack-config-version.cmake DESTINATION ${cmake_package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_include ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(packaging/vqpack.pc.in vqpack.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vqpack.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
