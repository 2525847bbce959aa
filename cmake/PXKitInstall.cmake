# Install rules: libpxkit.so, the public headers, the CMake package (PXKit::pxkit)
# and pxkit.pc.
#
# Only the shared library is installed. Everything the kit links privately
# (GLib, libgudev, libcurl, ICU, SQLite) is recorded in the library's own
# DT_NEEDED entries, and the public headers need nothing beyond the C++ standard
# library, so neither package asks consumers for another library's development
# files.
#
# Components: "Runtime" is the versioned library; "Development" adds the
# namelink, the headers, the CMake package and pxkit.pc.

include(CMakePackageConfigHelpers)

set(PXKIT_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/PXKit)

# The public headers are C++20; consumers of PXKit::pxkit compile with at least that.
target_compile_features(pxkit INTERFACE cxx_std_20)

install(TARGETS pxkit EXPORT PXKitTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pxkit
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.h")

# find_package(PXKit) gives PXKit::pxkit; the version file accepts any request
# with the same major version that is not newer than this build.
install(EXPORT PXKitTargets NAMESPACE PXKit:: FILE PXKitTargets.cmake
  DESTINATION ${PXKIT_CMAKE_INSTALL_DIR} COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/PXKitConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PXKitConfig.cmake
  INSTALL_DESTINATION ${PXKIT_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PXKitConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PXKitConfig.cmake ${PROJECT_BINARY_DIR}/PXKitConfigVersion.cmake
  DESTINATION ${PXKIT_CMAKE_INSTALL_DIR} COMPONENT Development)

# pxkit.pc names the prefix the files are really installed under, which is only
# known at install time (`cmake --install --prefix` may differ from the
# configured CMAKE_INSTALL_PREFIX). The template is filled in two passes: now
# with everything but the prefix, then by the install script with it.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(PXKIT_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  set(PXKIT_PC_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
else()
  set(PXKIT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(PXKIT_PC_INSTALL_DIR "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(PXKIT_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(PXKIT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(PXKIT_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")  # left for the second pass
configure_file(${PROJECT_SOURCE_DIR}/cmake/pxkit.pc.in ${PROJECT_BINARY_DIR}/pxkit-pc/pxkit.pc.in @ONLY)
install(CODE "
  configure_file(\"${PROJECT_BINARY_DIR}/pxkit-pc/pxkit.pc.in\" \"${PROJECT_BINARY_DIR}/pxkit-pc/pxkit.pc\" @ONLY)
  file(INSTALL DESTINATION \"${PXKIT_PC_INSTALL_DIR}\" TYPE FILE FILES \"${PROJECT_BINARY_DIR}/pxkit-pc/pxkit.pc\")
  " COMPONENT Development)
