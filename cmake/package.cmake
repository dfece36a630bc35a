# The Debian package (cpack -G DEB, or `make deb`): the command, the
# libraries, the headers and CMake/pkg-config files, the systemd unit, the
# configuration file /etc/faitra/faitra.toml, man pages made by help2man from the
# command's own --help, and maintainer scripts that create the system user
# and the capture directory. The service is left disabled.
#
# The unit and the configuration file are an install component of their own
# ("service") left out of a plain `cmake --install`, which must not write
# outside its prefix; the package takes every component into one .deb.

# The unit names the binary where the package puts it.
set(FAITRA_UNIT_BINDIR /usr/${CMAKE_INSTALL_BINDIR})
configure_file(${PROJECT_SOURCE_DIR}/packaging/faitra.service.in ${PROJECT_BINARY_DIR}/faitra.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/faitra.service DESTINATION /lib/systemd/system
        COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/faitra.toml DESTINATION /etc/faitra
        COMPONENT service EXCLUDE_FROM_ALL)

# Man pages: faitra(1) from `faitra --help`, faitra-serve(1) from
# `faitra serve --help`. Skipped in sanitizer builds, whose binary needs the
# sanitizer runtime's environment.
find_program(HELP2MAN help2man)
if(HELP2MAN AND FAITRA_SANITIZE STREQUAL "")
  set(man_dir ${PROJECT_BINARY_DIR}/man)
  file(MAKE_DIRECTORY ${man_dir})
  file(WRITE ${man_dir}/faitra-serve "#!/bin/sh\nexec \"$(dirname \"$0\")/../apps/faitra\" serve \"$@\"\n")
  file(CHMOD ${man_dir}/faitra-serve PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
       WORLD_READ WORLD_EXECUTE)
  set(help2man_flags --no-info --no-discard-stderr --version-string=${PROJECT_VERSION} --section=1)
  add_custom_command(
    OUTPUT ${man_dir}/faitra.1 ${man_dir}/faitra-serve.1
    COMMAND ${HELP2MAN} ${help2man_flags} --name "packet-capture catalogue and disk-usage ceiling"
            --output ${man_dir}/faitra.1 $<TARGET_FILE:faitra_cli>
    COMMAND ${HELP2MAN} ${help2man_flags} --name "the faitra daemon" --output ${man_dir}/faitra-serve.1
            ${man_dir}/faitra-serve
    DEPENDS faitra_cli
    COMMENT "Man pages from --help")
  add_custom_target(faitra_man ALL DEPENDS ${man_dir}/faitra.1 ${man_dir}/faitra-serve.1)
  install(FILES ${man_dir}/faitra.1 ${man_dir}/faitra-serve.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

set(CPACK_PACKAGE_NAME faitra)
set(CPACK_PACKAGE_VENDOR "faitra")
set(CPACK_PACKAGE_CONTACT "faitra maintainers <faitra@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "faitra keeps a directory of packet-capture files catalogued and under a disk-usage ceiling, with an "
       "HTTP API, a status page and Prometheus metrics. This package holds the daemon and its client (faitra), "
       "the library and its headers, and a systemd unit (not enabled).")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)  # the prefix of the staged install, with CPACK_SET_DESTDIR
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Unspecified service)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd")
configure_file(${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_BINARY_DIR}/deb/postinst COPYONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/postrm ${PROJECT_BINARY_DIR}/deb/postrm COPYONLY)
file(WRITE ${PROJECT_BINARY_DIR}/deb/conffiles "/etc/faitra/faitra.toml\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/deb/postinst ${PROJECT_BINARY_DIR}/deb/postrm ${PROJECT_BINARY_DIR}/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
