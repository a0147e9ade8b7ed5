set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_MAIN_COMPONENT tembrix)
set(CPACK_RPM_PACKAGE_RELEASE ${TEMBRIX_REVISION})
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)  # paths are compiled in
set(CPACK_RPM_PACKAGE_AUTOREQ yes)
set(CPACK_RPM_PACKAGE_AUTOPROV yes)
set(CPACK_RPM_SPEC_MORE_DEFINE "%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _buildhost localhost
%define _build_id_links none")
set(rpm_version ${PROJECT_VERSION}-${TEMBRIX_REVISION})
# Directories of the system, of which a package owns nothing.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/sbin /usr/local /usr/${CMAKE_INSTALL_LIBDIR} /usr/${CMAKE_INSTALL_LIBDIR}/pkgconfig
  /usr/${CMAKE_INSTALL_LIBDIR}/cmake /usr/include /usr/share /usr/share/doc /usr/share/licenses
  /usr/share/man /usr/share/man/man3 /usr/share/man/man5 /usr/share/man/man8
  /usr/share/bash-completion /usr/share/bash-completion/completions
  /usr/share/zsh /usr/share/zsh/site-functions)

set(CPACK_RPM_TEMBRIX_PACKAGE_NAME tembrix)
set(CPACK_RPM_TEMBRIX_PACKAGE_GROUP "System Environment/Base")
set(CPACK_RPM_TEMBRIX_PACKAGE_SUMMARY "Skeleton manager of a web-hosting control panel")
set(CPACK_RPM_TEMBRIX_PACKAGE_DESCRIPTION "${tembrix_text}")
set(CPACK_RPM_TEMBRIX_PACKAGE_REQUIRES "file, tar, gzip, unzip")
set(CPACK_RPM_TEMBRIX_PACKAGE_REQUIRES_POST "/usr/sbin/groupadd, /usr/bin/getent")
set(CPACK_RPM_TEMBRIX_POST_INSTALL_SCRIPT_FILE ${packages}/post)
set(CPACK_RPM_TEMBRIX_USER_FILELIST
  "%config(noreplace) /usr/local/oxa/var/default_skeleton.tgz"
  "%license /usr/share/licenses/tembrix/copyright")

set(CPACK_RPM_LIBFRASK_PACKAGE_NAME libfrask)
set(CPACK_RPM_LIBFRASK_PACKAGE_GROUP "System Environment/Libraries")
set(CPACK_RPM_LIBFRASK_PACKAGE_SUMMARY "Support library of a web-hosting control panel")
set(CPACK_RPM_LIBFRASK_PACKAGE_DESCRIPTION "${libfrask_text}")
set(CPACK_RPM_LIBFRASK_POST_INSTALL_SCRIPT_FILE ${packaging}/rpm/ldconfig)
set(CPACK_RPM_LIBFRASK_POST_UNINSTALL_SCRIPT_FILE ${packaging}/rpm/ldconfig)
set(CPACK_RPM_LIBFRASK_USER_FILELIST "%license /usr/share/licenses/libfrask/copyright")

set(CPACK_RPM_LIBFRASK-DEV_PACKAGE_NAME libfrask-devel)
set(CPACK_RPM_LIBFRASK-DEV_PACKAGE_GROUP "Development/Libraries")
set(CPACK_RPM_LIBFRASK-DEV_PACKAGE_SUMMARY "Support library of a web-hosting control panel (development)")
set(CPACK_RPM_LIBFRASK-DEV_PACKAGE_DESCRIPTION
  "${libfrask_text}\n\nThis package holds what a program is built with.")
# What frask.pc asks for, rpm finds by itself.
set(CPACK_RPM_LIBFRASK-DEV_PACKAGE_REQUIRES "libfrask = ${rpm_version}, boost-devel, pkgconfig")
set(CPACK_RPM_LIBFRASK-DEV_USER_FILELIST "%license /usr/share/licenses/libfrask-devel/copyright")
