# Where things go below the prefix: as the panel's tools look for them, or as the packages of a
# distribution have them (scripts/package sets the layout).
set(TEMBRIX_LAYOUT panel CACHE STRING "Layout of an installation: panel, deb or rpm")
set_property(CACHE TEMBRIX_LAYOUT PROPERTY STRINGS panel deb rpm)

set(CMAKE_INSTALL_LIBDIR lib)
set(CMAKE_INSTALL_SBINDIR sbin)
set(CMAKE_INSTALL_INCLUDEDIR include)
set(CMAKE_INSTALL_MANDIR share/man)
# The tool has its product root, "/usr/local/oxa", compiled in: a panel has the prefix "/usr/local".
set(TEMBRIX_PRODUCT_DIR oxa)
set(FRASK_EXAMPLES_DIR share/doc/frask/examples)

if(TEMBRIX_LAYOUT MATCHES "^(deb|rpm)$")  # whose prefix is "/usr"
  set(TEMBRIX_PRODUCT_DIR local/oxa)
endif()
if(TEMBRIX_LAYOUT STREQUAL deb)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
  set(TEMBRIX_ZSH_COMPLETION_DIR share/zsh/vendor-completions)
  set(FRASK_EXAMPLES_DIR share/doc/libfrask-dev/examples)
elseif(TEMBRIX_LAYOUT STREQUAL rpm)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CMAKE_INSTALL_LIBDIR lib64)
  endif()
  set(FRASK_EXAMPLES_DIR share/doc/libfrask-devel/examples)
elseif(NOT TEMBRIX_LAYOUT STREQUAL panel)
  message(FATAL_ERROR "TEMBRIX_LAYOUT is ${TEMBRIX_LAYOUT}, not panel, deb or rpm")
endif()
