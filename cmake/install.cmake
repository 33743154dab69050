# What `cmake --install` lays down: the headers, both libraries, a CMake package that gives
# tarn_utils_v4::comm (shared) and tarn_utils_v4::comm_static, a pkg-config file, the documents and
# the examples. All of it may be moved to another prefix afterwards. Programs need the component
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

install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/guide.md docs/performance.md docs/wire-format.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
  PATTERN __pycache__ EXCLUDE)
