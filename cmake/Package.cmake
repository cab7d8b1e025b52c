# `cpack -G DEB` (from the build folder) makes quenda_<version>_amd64.deb from the install rules,
# with Depends worked out by dpkg-shlibdeps. scripts/package-deb-test.sh proves it in a clean root.
if (WIN32 OR QUENDA_USER_INSTALL)
    return()
endif()

set (CPACK_PACKAGE_NAME quenda)
set (CPACK_PACKAGE_VENDOR "Selvane")
set (CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set (CPACK_PACKAGE_CONTACT "Selvane <quenda@selvane.example>")
set (CPACK_PACKAGE_DESCRIPTION_SUMMARY "stereo equaliser plug-in with spectral tilt and shelves")
set (CPACK_PACKAGING_INSTALL_PREFIX /usr)
set (CPACK_STRIP_FILES ON)
set (CPACK_GENERATOR DEB)
set (CPACK_OUTPUT_FILE_PREFIX "${CMAKE_BINARY_DIR}/packages")

set (CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set (CPACK_DEBIAN_PACKAGE_SECTION sound)
set (CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set (CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://selvane.example")
set (CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# JUCE opens the X11 libraries with dlopen, so dpkg-shlibdeps cannot see them; the editor's
# text needs a font on the system.
set (CPACK_DEBIAN_PACKAGE_DEPENDS
     "libx11-6, libxext6, libxcursor1, libxinerama1, libxrender1, libxrandr2, fonts-dejavu-core")
# The synopsis above, then this, indented by CPack.
set (CPACK_PACKAGE_DESCRIPTION "Quenda tilts the spectrum by up to 1 dB per octave about 1300 Hz with a
linear- or minimum-phase FIR kernel, and adds low and high shelving filters
and an output trim.

This package holds the VST3, LV2 and VST 2.4 plug-ins, the standalone
application (quenda) and the offline renderer (quenda-render).")

include (CPack)
