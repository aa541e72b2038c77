# `cpack -G DEB` in a build folder: one Debian package of the installed layout, for /usr.
# Its Depends come from the binaries (dpkg-shlibdeps, in dpkg-dev), not from a list kept by hand.
set(CPACK_PACKAGE_NAME cbradio)
set(CPACK_PACKAGE_VENDOR "Head-unit platform team")
set(CPACK_PACKAGE_CONTACT "Head-unit platform team <headunit@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "CB radio service of the head unit, its tools and simulators")
set(CPACK_PACKAGE_DESCRIPTION
    "The daemon that lets the head unit's user interface operate the CB radio module, with its \
command-line client, the trace server, the microcontroller and peer-service simulators, and the \
service-IPC library for other head-unit services.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The activation file and the unit start the daemon through these.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-daemon | dbus-broker, systemd")
include(CPack)
