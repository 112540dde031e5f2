# Install rules and the Debian package (cpack -G DEB): the binaries in
# /usr/sbin, the units where Debian keeps a package's units, their
# environment files as conffiles, and the maintainer scripts that enable
# and start the units as debhelper does.
# A service's files belong under /usr, not /usr/local: the units live in
# /lib/systemd/system whatever the prefix.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)
set(LUMO_DEBIAN_DIR ${CMAKE_SOURCE_DIR}/platform/linux/debian)
set(LUMO_PACKAGE_GEN_DIR ${CMAKE_BINARY_DIR}/package_gen)

install(TARGETS lumo-es lumo-refdaemon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# The units, as the package runs them.
set(BINARY_DIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(DOC_DIR ${CMAKE_INSTALL_FULL_DATAROOTDIR}/doc/lumo-es)
foreach(unit lumo-es lumo-refdaemon)
  configure_file(${CMAKE_SOURCE_DIR}/platform/linux/systemd/${unit}.service.in
                 ${LUMO_PACKAGE_GEN_DIR}/${unit}.service @ONLY)
  install(FILES ${LUMO_PACKAGE_GEN_DIR}/${unit}.service DESTINATION /lib/systemd/system)
  install(FILES ${LUMO_DEBIAN_DIR}/${unit}.default DESTINATION /etc/default RENAME ${unit})
endforeach()

# Documentation as Debian wants it: copyright, and the changelog compressed
# reproducibly (no name, no time stamp).
add_custom_command(
  OUTPUT ${LUMO_PACKAGE_GEN_DIR}/changelog.gz
  COMMAND gzip -9nc ${LUMO_DEBIAN_DIR}/changelog > ${LUMO_PACKAGE_GEN_DIR}/changelog.gz
  DEPENDS ${LUMO_DEBIAN_DIR}/changelog)
add_custom_target(lumo_package_docs ALL DEPENDS ${LUMO_PACKAGE_GEN_DIR}/changelog.gz)
install(FILES ${LUMO_DEBIAN_DIR}/copyright ${LUMO_PACKAGE_GEN_DIR}/changelog.gz
              ${CMAKE_SOURCE_DIR}/README.md
        DESTINATION ${DOC_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumo-es)
set(CPACK_PACKAGE_VENDOR Tarvex)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Lumo ES maintainers <lumo-es@tarvex.com>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://www.tarvex.com/lumo)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Endpoint Security extension of Tarvex Lumo")
# The synopsis is the summary above; this is the extended description.
string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "lumo-es receives the machine's process, file and printing events from the\n"
    "kernel (BPF and fanotify), filters them and hands compact records to the\n"
    "product's protection daemon over a local socket; it holds print filters\n"
    "briefly for the daemon's verdict. lumo-refdaemon stands in for the\n"
    "protection daemon and prints the events it receives.")
# Depends: from the binaries' shared libraries (dpkg-shlibdeps), plus the
# helpers the maintainer scripts call.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "init-system-helpers (>= 1.54~)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${LUMO_DEBIAN_DIR}/postinst ${LUMO_DEBIAN_DIR}/prerm ${LUMO_DEBIAN_DIR}/postrm
    ${LUMO_DEBIAN_DIR}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
