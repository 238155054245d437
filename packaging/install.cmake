# What `cmake --install` puts where, and the Debian package that `cpack` makes of it.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

install(TARGETS vqcomp EXPORT vqpack INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${vqcomp_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vqpack)

# find_package(vqpack) and pkg-config; both find the tree wherever it has been moved to.
set(cmake_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vqpack)
install(EXPORT vqpack FILE vqpack-config.cmake NAMESPACE vqpack:: DESTINATION ${cmake_package_dir})
write_basic_package_version_file(vqpack-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vqpack-config-version.cmake DESTINATION ${cmake_package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_include ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(packaging/vqpack.pc.in vqpack.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vqpack.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES man/velk.5 man/qubix.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES README.md CHANGELOG.md SECURITY.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES bench/comparison.svg DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench)
if(EXISTS ${PROJECT_SOURCE_DIR}/doc)
  install(DIRECTORY doc/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/doc FILES_MATCHING PATTERN *.md)
endif()
file(GLOB examples CONFIGURE_DEPENDS examples/*.cpp)
install(FILES examples/CMakeLists.txt ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

if(VQPACK_BUILD_PROGRAM)
  install(TARGETS vqpack)
  install(FILES man/vqpack.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES completions/vqpack.bash RENAME vqpack
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES completions/_vqpack DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES completions/vqpack.fish
          DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()  # a package is the business of the project that takes this one in
endif()

# The Debian package: cpack -G DEB. gzip is always there on Debian; bzip2 is wanted only for names in
# .bz2. What Debian arranges differently from other systems is done to the staged tree by
# debian.cmake.
set(CPACK_PACKAGE_CONTACT "the vqpack authors <authors@vqpack.invalid>"
    CACHE STRING "The maintainer whom the package names")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "converter for memory-bus traces")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Traces of the transactions on a processor's bus are large. vqpack converts
them between VELK, a text format with one transaction a line, and QUBIX, a
compact binary format in six file types with checksums and metadata.

The package also holds the static library libvqcomp, its header and two
example programs, to read and write such traces from C++.")
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS bzip2)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian.cmake)
include(CPack)
