# The Debian package: `cmake --build build --target package` writes
# build/kelvo_<version>-1_<arch>.deb with the programs, the unit and its
# account, the manual pages, bash completion and the documentation.
set(KELVO_MAINTAINER "KELVO developers <kelvo-dev@kelvo.invalid>")
set(KELVO_DEB_VERSION ${PROJECT_VERSION}-1)
set(KELVO_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/kelvo)

configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${PROJECT_BINARY_DIR}/packaging/changelog.Debian @ONLY)
add_custom_command(
  OUTPUT ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
  COMMAND gzip -9nf -k ${PROJECT_BINARY_DIR}/packaging/changelog.Debian
  DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog.Debian
  VERBATIM)
add_custom_target(changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/packaging/copyright
              ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${KELVO_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvo)
set(CPACK_PACKAGE_VENDOR "KELVO developers")
set(CPACK_PACKAGE_CONTACT ${KELVO_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "local text-to-speech service for airline announcements")
# CPack puts the summary first and indents these lines itself.
set(CPACK_PACKAGE_DESCRIPTION "KELVO keeps a library of voices cloned from short reference recordings,
binds them to airlines, languages and genders, and answers synthesis
requests over HTTP with WAV audio. Spoken lines are cached and whole
announcement sets can be pre-baked. The speech comes from the s2 inference
server of s2.cpp (not included); without it a placeholder engine answers.

The package holds kelvo (the service and its operator commands),
kelvo-selftest, a hardened systemd unit with its system account, manual
pages and bash completion.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends: what dpkg-shlibdeps finds for the libraries the programs link.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# And what dpkg-shlibdeps cannot see: libcurl, opened at run time rather than
# linked, and adduser, which the maintainer scripts call where
# systemd-sysusers is missing (deb-systemd-invoke comes with the essential
# init-system-helpers).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, libcurl4 (>= 7.88)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/prerm ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
include(CPack)
