set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TEMBRIX_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(deb_version ${PROJECT_VERSION}-${TEMBRIX_REVISION})

set(CPACK_DEBIAN_TEMBRIX_PACKAGE_NAME tembrix)
set(CPACK_DEBIAN_TEMBRIX_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TEMBRIX_DESCRIPTION "${tembrix_summary}\n${tembrix_text}")
# groupadd, which the package runs when it is installed, is passwd's.
set(CPACK_DEBIAN_TEMBRIX_PACKAGE_DEPENDS "file, tar, gzip, unzip, passwd")
set(CPACK_DEBIAN_TEMBRIX_PACKAGE_CONTROL_EXTRA ${packages}/postinst ${packaging}/deb/conffiles)
set(CPACK_DEBIAN_TEMBRIX_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBFRASK_PACKAGE_NAME libfrask${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBFRASK_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBFRASK_DESCRIPTION "${libfrask_summary}\n${libfrask_text}")
set(CPACK_DEBIAN_LIBFRASK_PACKAGE_CONTROL_EXTRA ${packages}/symbols ${packaging}/deb/triggers)

set(CPACK_DEBIAN_LIBFRASK-DEV_PACKAGE_NAME libfrask-dev)
set(CPACK_DEBIAN_LIBFRASK-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBFRASK-DEV_DESCRIPTION
  "${libfrask_summary} (development)\n${libfrask_text}\n.\nThis package holds what a program is built with.")
# "pkg-config --static" names liblzma, on which libxml2-dev does not depend.
set(CPACK_DEBIAN_LIBFRASK-DEV_PACKAGE_DEPENDS
  "libfrask${PROJECT_VERSION_MAJOR} (= ${deb_version}), libmariadb-dev, libidn-dev, libxml2-dev, liblzma-dev, libboost-dev, pkg-config")
