include(CMakePackageConfigHelpers)

install(TARGETS tembrix RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS frask frask-static EXPORT frask-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Every header of the library; the owners of descriptors and directories are the library's own.
install(DIRECTORY src/ DESTINATION include/frask
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*.private.h" EXCLUDE
  PATTERN "unique_fd.h" EXCLUDE
  PATTERN "dir_stream.h" EXCLUDE
  PATTERN "CMakeLists.txt" EXCLUDE)

# Whoever runs the tool wants its pages and those of its files, whoever builds programs the others.
file(GLOB manual_pages CONFIGURE_DEPENDS man/*.[1-9])
foreach(page ${manual_pages})
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 1 section)
  set(component tembrix)
  if(section EQUAL 3)
    set(component dev)
  endif()
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()

configure_file(cmake/frask.pc.in frask.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/frask.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(FRASK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/frask)
configure_package_config_file(cmake/fraskConfig.cmake.in fraskConfig.cmake
  INSTALL_DESTINATION ${FRASK_CMAKE_DIR})
write_basic_package_version_file(fraskConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fraskConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/fraskConfigVersion.cmake DESTINATION ${FRASK_CMAKE_DIR})
install(EXPORT frask-targets NAMESPACE frask:: DESTINATION ${FRASK_CMAKE_DIR})
