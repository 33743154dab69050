# Run by cpack on the packages that it made: takes out the scripts that call ldconfig, which cpack
# puts into each package of a library. The trigger does it, once for all packages of a run of apt.
find_program(dpkg_deb dpkg-deb REQUIRED)
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(open ${CPACK_TEMPORARY_DIRECTORY}/open)
  file(REMOVE_RECURSE ${open})
  execute_process(COMMAND ${dpkg_deb} --raw-extract ${package} ${open} COMMAND_ERROR_IS_FATAL ANY)
  set(calls)
  if(EXISTS ${open}/DEBIAN/postinst)
    file(STRINGS ${open}/DEBIAN/postinst calls REGEX ldconfig)
  endif()
  if(calls)
    file(REMOVE ${open}/DEBIAN/postinst ${open}/DEBIAN/postrm)
    execute_process(COMMAND ${dpkg_deb} --root-owner-group --build ${open} ${package}
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
