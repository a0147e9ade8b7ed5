# Three components, one a package: the tool with what the panel finds below its product root, the
# library, and what a program is built with.
include(CMakePackageConfigHelpers)

install(TARGETS tembrix RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tembrix)
install(TARGETS frask frask-static EXPORT frask-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libfrask NAMELINK_COMPONENT libfrask-dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libfrask-dev)

# The panel's utilities are run from "admin/sbin" below the product root.
set(link ${CMAKE_CURRENT_BINARY_DIR}/admin/tembrix)
file(RELATIVE_PATH tool /${TEMBRIX_PRODUCT_DIR}/admin/sbin /${CMAKE_INSTALL_SBINDIR}/tembrix)
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/admin)
file(CREATE_LINK ${tool} ${link} SYMBOLIC)
install(FILES ${link} DESTINATION ${TEMBRIX_PRODUCT_DIR}/admin/sbin COMPONENT tembrix)

# Every header of the library; the owners of descriptors and directories are the library's own.
install(DIRECTORY src/ DESTINATION include/frask COMPONENT libfrask-dev
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*.private.h" EXCLUDE
  PATTERN "unique_fd.h" EXCLUDE
  PATTERN "dir_stream.h" EXCLUDE
  PATTERN "CMakeLists.txt" EXCLUDE)

# Whoever runs the tool wants its pages and those of its files, whoever builds programs the others.
foreach(section 3 5 8)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  set(component tembrix)
  if(section EQUAL 3)
    set(component libfrask-dev)
  endif()
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()

install(FILES examples/site.c examples/site_report.cpp examples/CMakeLists.txt
  DESTINATION ${FRASK_EXAMPLES_DIR} COMPONENT libfrask-dev)

file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" up ${up})
configure_file(cmake/frask.pc.in frask.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/frask.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT libfrask-dev)

set(FRASK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/frask)
configure_package_config_file(cmake/fraskConfig.cmake.in fraskConfig.cmake
  INSTALL_DESTINATION ${FRASK_CMAKE_DIR})
write_basic_package_version_file(fraskConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fraskConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/fraskConfigVersion.cmake DESTINATION ${FRASK_CMAKE_DIR}
  COMPONENT libfrask-dev)
install(EXPORT frask-targets NAMESPACE frask:: DESTINATION ${FRASK_CMAKE_DIR}
  COMPONENT libfrask-dev)
