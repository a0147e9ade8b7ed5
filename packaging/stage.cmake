# Run by CPack when the components are laid out and before they are packed: hands over to the script
# that finishes them.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(names tembrix libfrask${CPACK_PACKAGE_VERSION_MAJOR} libfrask-dev)
else()
  set(names tembrix libfrask libfrask-devel)
endif()
foreach(component name IN ZIP_LISTS CPACK_COMPONENTS_ALL names)
  execute_process(
    COMMAND ${CPACK_TEMBRIX_PACKAGING}/stage.sh ${CPACK_GENERATOR}
      ${CPACK_TEMPORARY_DIRECTORY}/${component} ${name} ${CPACK_PACKAGE_VERSION}
      ${CPACK_TEMBRIX_SYMBOLS} ${CPACK_TEMBRIX_PACKAGES}/symbols
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
