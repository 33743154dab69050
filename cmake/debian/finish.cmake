# Run by cpack when the files of the packages lie side by side, before it packs them: adds what
# every package has, and compresses what Debian has compressed.
find_program(python3 python3 REQUIRED)
find_program(gzip gzip REQUIRED)
find_program(dpkg_gensymbols dpkg-gensymbols REQUIRED)
set(here ${CMAKE_CURRENT_LIST_DIR})
set(staged ${CPACK_TEMPORARY_DIRECTORY})

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} key)
  set(usr ${staged}/${component}${CPACK_PACKAGING_INSTALL_PREFIX})
  set(doc ${usr}/share/doc/${CPACK_DEBIAN_${key}_PACKAGE_NAME})
  file(MAKE_DIRECTORY ${doc})
  file(COPY ${here}/copyright DESTINATION ${doc})
  execute_process(
    COMMAND ${python3} ${here}/changelog ${here}/../../CHANGELOG.md ${CPACK_DEBIAN_PACKAGE_SOURCE}
      ${CPACK_PACKAGE_VERSION} ${CPACK_PACKAGE_CONTACT}
    OUTPUT_FILE ${doc}/changelog
    COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${doc}/CHANGELOG.md)  # What changelog.gz says.

  file(GLOB pages ${usr}/share/man/*/*)
  execute_process(COMMAND ${gzip} -9n ${doc}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The version that first had a name is that of its node in lib/exports.map. Fails for a node that
# `symbols` does not list.
file(GLOB library ${staged}/runtime${CPACK_PACKAGING_INSTALL_PREFIX}/lib/*/*.so.*)
cmake_path(GET CPACK_COMM_SYMBOLS PARENT_PATH directory)
file(MAKE_DIRECTORY ${directory})
execute_process(
  COMMAND ${dpkg_gensymbols} -c4 -p${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} -v${CPACK_PACKAGE_VERSION}
    -e${library} -I${here}/symbols -O${CPACK_COMM_SYMBOLS}
  COMMAND_ERROR_IS_FATAL ANY)
