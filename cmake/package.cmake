# What CPack makes of the three components; scripts/package runs it for both kinds of package.
set(packaging ${CMAKE_CURRENT_SOURCE_DIR}/packaging)
set(packages ${CMAKE_CURRENT_BINARY_DIR}/packaging)

# The revision of the packages is that of the newest entry of their changelog.
file(STRINGS ${packaging}/deb/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^tembrix \\(([^-]+)-([0-9]+)\\)" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/deb/changelog does not begin with an entry for ${PROJECT_VERSION}")
endif()
set(TEMBRIX_REVISION ${CMAKE_MATCH_2} CACHE STRING "Revision of the packages")

file(READ ${packaging}/provide_places.sh TEMBRIX_PROVIDE_PLACES)
file(WRITE ${packages}/post "set -e\n${TEMBRIX_PROVIDE_PLACES}")
configure_file(${packaging}/deb/postinst.in ${packages}/postinst @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGE_NAME tembrix)
set(CPACK_PACKAGE_VENDOR "the tembrix maintainers")
set(CPACK_PACKAGE_CONTACT "tembrix maintainers <maintainers@tembrix.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # or it would precede the packages' own
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL tembrix libfrask libfrask-dev)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/stage.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# For stage.cmake, which sees variables of this prefix alone.
set(CPACK_TEMBRIX_PACKAGING ${packaging})
set(CPACK_TEMBRIX_PACKAGES ${packages})
set(CPACK_TEMBRIX_SYMBOLS ${CMAKE_CURRENT_SOURCE_DIR}/tests/install/exported-symbols.txt)

set(tembrix_summary "skeleton manager of a web-hosting control panel")
set(tembrix_text
"Tests the archives in which the clients of a hosting panel upload the
initial content of their sites, keeps what they hold in the clients'
skeleton stores, and brings a default skeleton. The panel's other
programs run it; it answers with one integer.")
set(libfrask_summary "support library of a web-hosting control panel")
set(libfrask_text
"Configuration and INI files, the panel's database, running other
programs, trees of files, logging, internationalised domain names, and
the content of virtual hosts.")

include(cmake/package_deb.cmake)
include(cmake/package_rpm.cmake)
include(CPack)
