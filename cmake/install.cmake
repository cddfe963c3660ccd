# Install rules and the Debian packages.
#
# cmake --install build --prefix P (add --strip for stripped host programs) puts:
#   tools:  P/bin/ota-publish, P/bin/tavi-sim
#           P/share/man/man1/ota-publish.1.gz, tavi-sim.1.gz
#           P/share/doc/tavi-ota-tools/: the guides, copyright, changelog.Debian.gz
#           P/share/lintian/overrides/tavi-ota-tools (why lintian's remarks do not apply)
#   device: P/lib/tavi/ota, the device program exactly as built (already stripped); a
#           device image takes this file as /bin/ota, and an installed tavi-sim finds it
#           here for `tavi-sim init`
#           P/share/man/man1/ota.1.gz
#           P/share/doc/tavi-ota-device/: copyright, changelog.Debian.gz
#           P/share/lintian/overrides/tavi-ota-device
#
# cpack (scripts/package.sh) makes one Debian package of each component in build/packages/.
set(OTA_TOOLS_PACKAGE tavi-ota-tools)
set(OTA_DEVICE_PACKAGE tavi-ota-device)

# Directories an installation makes are 0755 whatever the umask of the person installing.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Manual pages and the changelog are installed compressed, as Debian keeps them; -n leaves
# the name and time out of the gzip header so the same sources give the same bytes.
find_program(OTA_GZIP gzip REQUIRED)
set(OTA_COMPRESSED_DIR ${CMAKE_BINARY_DIR}/install-files)
set(compressed)
foreach(source docs/ota.1 docs/ota-publish.1 docs/tavi-sim.1 packaging/changelog)
  get_filename_component(name ${source} NAME)
  if(name STREQUAL "changelog")
    set(name changelog.Debian)
  endif()
  add_custom_command(OUTPUT ${OTA_COMPRESSED_DIR}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${OTA_COMPRESSED_DIR}
    COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/${source} ${OTA_COMPRESSED_DIR}/${name}
    COMMAND ${OTA_GZIP} -9nf ${OTA_COMPRESSED_DIR}/${name}
    DEPENDS ${CMAKE_SOURCE_DIR}/${source}
    VERBATIM)
  list(APPEND compressed ${OTA_COMPRESSED_DIR}/${name}.gz)
endforeach()
add_custom_target(ota_install_files ALL DEPENDS ${compressed})

set(man1 ${CMAKE_INSTALL_MANDIR}/man1)
set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc)

if(TARGET ota-publish AND TARGET tavi-sim)
  install(TARGETS ota-publish tavi-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES ${OTA_COMPRESSED_DIR}/ota-publish.1.gz ${OTA_COMPRESSED_DIR}/tavi-sim.1.gz
          DESTINATION ${man1} COMPONENT tools)
  # The guides link to each other, so they stay together.
  install(FILES docs/ota-guide.md docs/operating.md docs/formats.md docs/simulator.md docs/fleet.md
                packaging/copyright ${OTA_COMPRESSED_DIR}/changelog.Debian.gz
          DESTINATION ${doc}/${OTA_TOOLS_PACKAGE} COMPONENT tools)
  install(FILES packaging/lintian/${OTA_TOOLS_PACKAGE} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
          COMPONENT tools)
endif()

install(PROGRAMS ${CMAKE_BINARY_DIR}/bin/ota DESTINATION ${OTA_INSTALL_DEVICE_DIR} COMPONENT device)
install(FILES ${OTA_COMPRESSED_DIR}/ota.1.gz DESTINATION ${man1} COMPONENT device)
install(FILES packaging/copyright ${OTA_COMPRESSED_DIR}/changelog.Debian.gz
        DESTINATION ${doc}/${OTA_DEVICE_PACKAGE} COMPONENT device)
install(FILES packaging/lintian/${OTA_DEVICE_PACKAGE} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        COMPONENT device)

# ---------------------------------------------------------------------------------------
# Debian packages: tavi-ota-tools (the host programs, with the libraries dpkg-shlibdeps
# finds and the programs tavi-sim runs) and tavi-ota-device (the device program).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavi-ota)
set(CPACK_PACKAGE_VENDOR "The tavi ota developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${OTA_PACKAGE_MAINTAINER})
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools device)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${OTA_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${OTA_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SOURCE tavi-ota)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(package_version ${PROJECT_VERSION}-${OTA_PACKAGE_REVISION})

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${OTA_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# tavi-sim makes and reads the EFI partition images with these. Only some uses need the
# rest: curl when a device fetches from a real HTTP server, nginx and gnuplot for a fleet
# rehearsal, and a PKCS#11 module (SoftHSM2 or a hardware token's) to sign through a token.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "dosfstools, mtools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "${OTA_DEVICE_PACKAGE} (= ${package_version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "curl, nginx-light | nginx, gnuplot-nox | gnuplot, softhsm2")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"release tool and device simulator for the tavi update client
ota is the over-the-air update client of tavi, a small x86-64 operating
system. This package holds the two programs around it:

ota-publish builds, signs and checks update sources: Ed25519 keys, signed
package catalogs, key changes, withdrawn versions, system manifests with
gzip variants.

tavi-sim runs the unchanged device program on Linux as the tavi kernel
would, with its EFI partition, boot loader, restarts and fault injection,
so that an update source can be tried before a device sees it. It needs
root (chroot and ptrace).")

set(CPACK_DEBIAN_DEVICE_PACKAGE_NAME ${OTA_DEVICE_PACKAGE})
set(CPACK_DEBIAN_DEVICE_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_DEVICE_DESCRIPTION
"update client program for tavi devices
ota is the over-the-air update client of tavi, a small x86-64 operating
system: signed package updates and A/B system image updates with trials,
a watchdog and rollback.

This package holds the device program, one static executable without a C
library, in /usr/${OTA_INSTALL_DEVICE_DIR}/ota, from where a device image takes it as
/bin/ota and where tavi-sim finds it. It is not meant to be run on the
machine it is installed on.")

include(CPack)
