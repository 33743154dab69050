# What `cmake --install` lays down: the headers, both libraries, a CMake package that gives
# tarn_utils_v4::comm (shared) and tarn_utils_v4::comm_static, a pkg-config file, the documents, the
# manual pages and the examples. All of it may be moved to another prefix afterwards. Programs need the component
# `runtime` to run, and `development` to be built.
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME})
install(TARGETS tarn_utils_v4_comm tarn_utils_v4_comm_static
  EXPORT ${PROJECT_NAME}
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
  FILE_SET HEADERS)
install(EXPORT ${PROJECT_NAME}
  NAMESPACE tarn_utils_v4::
  FILE ${PROJECT_NAME}Config.cmake
  DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_NAME}ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${PROJECT_NAME}ConfigVersion.cmake
  DESTINATION ${package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(pkgconfig_to_prefix /)
cmake_path(RELATIVE_PATH pkgconfig_to_prefix BASE_DIRECTORY /${pkgconfig_dir})
list(TRANSFORM sister_libraries PREPEND -l OUTPUT_VARIABLE private_libs)
list(JOIN private_libs " " private_libs)
configure_file(cmake/libtarn_utils_v4_comm.pc.in libtarn_utils_v4_comm.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libtarn_utils_v4_comm.pc
  DESTINATION ${pkgconfig_dir})

# The same on every machine: modules are found there by Debian's python3, and below another prefix
# with PYTHONPATH.
install(DIRECTORY python/tarn_comm DESTINATION lib/python3/dist-packages COMPONENT python
  PATTERN __pycache__ EXCLUDE)

install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/guide.md docs/performance.md docs/wire-format.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
  PATTERN __pycache__ EXCLUDE)

# Manual pages, made from the headers.
if(COMM_REQUIRE_MANUAL)
  find_program(COMM_PYTHON python3 REQUIRED)
elseif(PROJECT_IS_TOP_LEVEL)
  find_program(COMM_PYTHON python3)
endif()
if(COMM_PYTHON)
  set(manual ${CMAKE_CURRENT_BINARY_DIR}/man)
  file(GLOB manual_sources CONFIGURE_DEPENDS docs/man/*.py docs/man/manual_pages
    include/tarn_utils_v4/*.h)
  add_custom_command(OUTPUT ${manual}.stamp
    COMMAND ${COMM_PYTHON} ${PROJECT_SOURCE_DIR}/docs/man/manual_pages ${PROJECT_VERSION} ${manual}
    COMMAND ${CMAKE_COMMAND} -E touch ${manual}.stamp
    DEPENDS ${manual_sources} ${PROJECT_SOURCE_DIR}/docs/wire-format.md
      ${PROJECT_SOURCE_DIR}/tests/exported_symbols.txt
    COMMENT "Making the manual pages")
  add_custom_target(manual ALL DEPENDS ${manual}.stamp)
  install(DIRECTORY ${manual}/ DESTINATION ${CMAKE_INSTALL_MANDIR})
elseif(PROJECT_IS_TOP_LEVEL)
  message(STATUS "No python3: the manual pages of the library are not made")
endif()
