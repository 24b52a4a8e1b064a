# Installing and packaging: the CMake package (telvoConfig.cmake, version
# file, exported targets), telvo.pc for pkg-config, and a Debian package
# built by cpack.
include(CMakePackageConfigHelpers)

set(TELVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/telvo)
install(EXPORT telvoTargets NAMESPACE telvo:: DESTINATION ${TELVO_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/telvoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/telvoConfig.cmake INSTALL_DESTINATION ${TELVO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/telvoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/telvoConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/telvoConfigVersion.cmake
        DESTINATION ${TELVO_CMAKE_DIR})

# The .pc file finds its prefix from its own place, so the tree can move
# (a staging folder, an unpacked package).
file(RELATIVE_PATH TELVO_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" TELVO_PC_PREFIX "${TELVO_PC_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/telvo.pc.in ${CMAKE_CURRENT_BINARY_DIR}/telvo.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/telvo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# cpack -G DEB: one package with the library, headers, CMake package,
# pkg-config file and the tool. Shared libraries' dependencies (libcurl,
# zlib, the tool's OpenSSL, SQLite and httplib) come from dpkg-shlibdeps;
# the headers and the CMake package need the development packages below.
set(CPACK_PACKAGE_NAME telvo)
set(CPACK_PACKAGE_VENDOR "Telvo")
set(CPACK_PACKAGE_CONTACT "Telvo developers <dev@telvo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Telvo analytics client library for C and C++, and the telvo tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libcurl4-openssl-dev | libcurl-dev, zlib1g-dev, nlohmann-json3-dev (>= 3.9)")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads the dpkg database, which holds no package of a
  # target's sysroot: the run-time dependencies are written out instead,
  # the ones it finds for this machine.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${TELVO_DEB_ARCHITECTURE})
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS
    ", libc6 (>= 2.34), libcpp-httplib0.11 (>= 0.11.4+ds), libcurl4 (>= 7.68.0)"
    ", libgcc-s1 (>= 3.0), libsqlite3-0 (>= 3.8.7), libssl3 (>= 3.0.0), libstdc++6 (>= 12)"
    ", zlib1g (>= 1:1.2.0)")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
