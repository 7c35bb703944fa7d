# "cpack -G DEB" in the build folder packs what "cmake --install" puts in
# place: the library with its headers and package files, the installer bundle
# with its tool, and the polkit action. scripts/package configures the prefix
# /usr, which the action's tool path and the library folder were made for.
set(CPACK_PACKAGE_NAME velmora-installer)
set(CPACK_PACKAGE_VENDOR Velmora)
set(CPACK_PACKAGE_CONTACT "Velmora <packages@velmora.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Desktop installer for application bundles, and its KVStuff library")
set(CPACK_PACKAGE_DESCRIPTION "The installer puts an application bundle into the Applications
folder, replacing a copy that may be running, and registers and launches it.
KVStuff is the shared library of process, system, text, sound and appearance
utilities it stands on.")
set(CPACK_PACKAGE_HOMEPAGE_URL https://www.velmora.org/)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# A shlibs file for packages that link the library, and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/deb/triggers)
# Programs the installer starts rather than links.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pkexec")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "desktop-file-utils, qt6-image-formats-plugins")
include(CPack)
