# Installation of the product as a whole, and its Debian package.
#
#   cmake --install build --prefix /usr      the product into the system
#   cpack --config build/CPackConfig.cmake   build/vantshrd_<version>_<arch>.deb
#
# The programs, the tmpfiles entry, the manual page and the library's
# headers are installed by their own folders; here are the udev rule, the
# documentation and the package's description.

include(GNUInstallDirs)

# cpack installs from the build tree as it stands: it must not build the
# whole suite first (the package test runs inside that suite).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

# udev reads rules only from /usr/lib/udev/rules.d (the package) and
# /etc/udev/rules.d (a local install, e.g. -DDEVIO_UDEV_RULES_DIR=/etc/udev/rules.d
# for a prefix of /usr/local). A relative folder is taken under the prefix.
set(DEVIO_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING
  "Where the udev rule that gives the seat's user access to the devices goes")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/70-vantrel-devio.rules
  DESTINATION ${DEVIO_UDEV_RULES_DIR})

set(vantshrd_docdir ${CMAKE_INSTALL_DATADIR}/doc/vantshrd)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging
  COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)
add_custom_target(vantshrd-changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
install(FILES
  ${PROJECT_SOURCE_DIR}/README.md
  ${PROJECT_SOURCE_DIR}/packaging/copyright
  ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  DESTINATION ${vantshrd_docdir})

# The package. Its dependencies are found by dpkg-shlibdeps from the
# programs' own links.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantshrd)
set(CPACK_PACKAGE_VERSION ${VANTSHRD_VERSION})
set(CPACK_PACKAGE_CONTACT "Vantrel Packaging <packaging@vantrel.example>")
set(CPACK_PACKAGE_VENDOR Vantrel)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Vantrel analytics client and device tool")
set(CPACK_PACKAGE_DESCRIPTION
  "qvclient runs beside the Vantrel desktop application, stamps the usage\n"
  "events the application pipes to it, and uploads them. devio shows the\n"
  "Vantrel input devices attached to the machine (names, battery,\n"
  "firmware, properties) and watches them come and go. The package brings\n"
  "the udev rule that lets the user at the seat reach the devices, the\n"
  "shared data folder of the clients, and the device library's headers.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PackageStrip.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://vantrel.example/vantshrd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Only the files above: nothing of the test suite or the benchmarks.
set(CPACK_INSTALL_CMAKE_PROJECTS "${PROJECT_BINARY_DIR};${PROJECT_NAME};ALL;/")
include(CPack)
