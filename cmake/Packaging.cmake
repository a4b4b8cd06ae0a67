# Desktop integration (launcher entry, icon, AppStream metadata), the manual
# pages, and the Debian package of everything that is installed.
set(_desktop ${CMAKE_SOURCE_DIR}/resources/desktop)
install(FILES ${_desktop}/${BRIX_BUNDLE_IDENTIFIER}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${_desktop}/${BRIX_BUNDLE_IDENTIFIER}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES ${CMAKE_SOURCE_DIR}/resources/${BRIX_BUNDLE_IDENTIFIER}.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

# Manual pages, compressed as Debian installs them (-n: no time stamp, so the
# package's bytes do not change from one build to the next).
find_program(BRIX_GZIP gzip REQUIRED)
set(_man_pages)
foreach(page BrixCanonCapture.1 brixctl.1)
  set(_gz ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${_gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${BRIX_GZIP} -9nc ${CMAKE_SOURCE_DIR}/man/${page} > ${_gz}
    DEPENDS ${CMAKE_SOURCE_DIR}/man/${page}
    VERBATIM)
  list(APPEND _man_pages ${_gz})
endforeach()
add_custom_target(brix_man_pages ALL DEPENDS ${_man_pages})
install(FILES ${_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# cpack -G DEB (or `cpack --preset deb` after building the station preset).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME brixcanoncapture)
set(CPACK_PACKAGE_VENDOR "Lumetra")
set(CPACK_PACKAGE_CONTACT "Lumetra Brix <brix@lumetra.com>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tethering station for event photography with one Canon camera")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "Drives one Canon EOS camera on USB (libgphoto2, or Canon's own library when "
    "installed), saves every shot under a 17-digit time-stamp name and announces it "
    "to the station's other applications on the D-Bus session bus. Includes the "
    "watchdog that relaunches it and brixctl, its command-line client.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://lumetra.com/brix")
# Library dependencies are read from the binaries by dpkg-shlibdeps; these are
# the programs the station talks to or runs: the session bus, and uptime for
# the log's system report.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus, procps")
# dbus-user-session gives a service started by systemd --user its session bus;
# gio releases a camera that the desktop has mounted.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session, libglib2.0-bin")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gphoto2")
include(CPack)
