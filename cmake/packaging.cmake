# cpack -G DEB (run in the build directory) makes a Debian package that
# installs under /usr.
set(CPACK_PACKAGE_NAME klvlockd)
set(CPACK_PACKAGE_VENDOR "klvlockd developers")
set(CPACK_PACKAGE_CONTACT "klvlockd developers <klvlockd@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "lock daemon of a network file server for PC clients")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "klvlockd keeps the one table of client sessions, opens with their share modes, "
    "opportunistic locks and byte-range locks for the server processes of a network file "
    "server, and answers their requests over UDP on 127.0.0.1. lockinfo prints its status "
    "report, as text, JSON or metrics.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The library and program dependencies (libc6, libstdc++6, libgcc-s1) come
# from dpkg-shlibdeps when it is installed (package dpkg-dev).
find_program(KLV_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KLV_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6")
endif()
include(CPack)
