# The Debian package (scripts/package builds it with CPack): the daemon, the native-side peer,
# the example scenarios, the manual pages and the copyright. Only these have install rules,
# so tests and benchmarks of the same build never reach the package.
include(GNUInstallDirs)

set(ND_PACKAGE_NAME networkdriver)
set(ND_PACKAGE_MAINTAINER "NetworkDriver developers <networkdriver@example.org>"
    CACHE STRING "Maintainer field of the Debian package")
set(ND_PACKAGE_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/${ND_PACKAGE_NAME})

install(TARGETS NetworkDriver RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ndpeer RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/scenarios/
        DESTINATION ${CMAKE_INSTALL_DATADIR}/${ND_PACKAGE_NAME}/scenarios
        FILES_MATCHING PATTERN "*.json")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright DESTINATION ${ND_PACKAGE_DOCDIR})

# Debian wants manual pages and the changelog compressed with gzip -9 and without a time stamp
# (-n), so that two builds of the same sources give the same files. The changelog's date
# follows SOURCE_DATE_EPOCH when it is set.
string(TIMESTAMP ND_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog @ONLY)
set(ND_GZIPPED)
function(nd_gzip source output)
  add_custom_command(OUTPUT ${output}
    COMMAND sh -c "gzip -9nc \"$0\" > \"$1\"" ${source} ${output}
    DEPENDS ${source} VERBATIM)
  set(ND_GZIPPED ${ND_GZIPPED} ${output} PARENT_SCOPE)
endfunction()
set(ND_MAN_OUT ${CMAKE_CURRENT_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${ND_MAN_OUT})
nd_gzip(${PROJECT_SOURCE_DIR}/man/NetworkDriver.8 ${ND_MAN_OUT}/NetworkDriver.8.gz)
nd_gzip(${PROJECT_SOURCE_DIR}/man/ndpeer.1 ${ND_MAN_OUT}/ndpeer.1.gz)
nd_gzip(${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz)
add_custom_target(nd_package_files ALL DEPENDS ${ND_GZIPPED})
install(FILES ${ND_MAN_OUT}/NetworkDriver.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${ND_MAN_OUT}/ndpeer.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz DESTINATION ${ND_PACKAGE_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${ND_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${ND_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The run-time dependencies are what dpkg-shlibdeps finds in the two programs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "packet-processing daemon for VPN bridging, NAT and connection sharing")
# The extended description; CPack puts the summary above it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "NetworkDriver works beside a VPN runtime, which starts it and commands it over
two pipe sockets. It bridges Ethernet frames between the VPN tunnel and local
network interfaces, and runs source and destination NAT (published ports, HTTP
Host and FTP rewriting) and connection sharing on the frames it captures.
.
ndpeer plays the VPN runtime's side of the pipes, for operators and test
scripts: it starts the daemon, sends requests from JSON scenarios, bridges the
tunnel to a tap device and writes the tunnel's frames to pcap captures.")
include(CPack)
