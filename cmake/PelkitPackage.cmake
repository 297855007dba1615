# A Debian package of the installed files: `cpack -G DEB` in the build directory (see
# scripts/check-deb). The programs' runtime libraries come from dpkg-shlibdeps; a host linking the
# static libraries also needs a compiler, pkg-config (pelkitConfig.cmake uses it) and the
# development packages of everything they link (cmake/pelkitDependencies.cmake).
set(CPACK_PACKAGE_NAME pelkit)
set(CPACK_PACKAGE_VENDOR PELkit)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Image-recognition augmented-reality framework")
set(CPACK_PACKAGE_DESCRIPTION
    "PELkit synchronises AR projects from a server, recognises their target images in camera\n\
frames and places their content on them in a 3D scene. Headers, libraries, the pelkit and\n\
pelkit-devserver programs and the framework's resources.")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "PELkit developers <pelkit@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Installed exactly where the build was configured to install, so that the prefix compiled into
# the libraries and written into pelkit.pc is the package's (configure with
# -DCMAKE_INSTALL_PREFIX=/usr).
set(CPACK_SET_DESTDIR ON)
get_property(pelkit_development_packages GLOBAL PROPERTY PELKIT_DEBIAN_PACKAGES)
list(PREPEND pelkit_development_packages g++ pkg-config)
list(JOIN pelkit_development_packages ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
include(CPack)
