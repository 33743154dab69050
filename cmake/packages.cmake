# What `cpack` makes: Debian packages of the library, of what programs are built with, of the Python
# package, and of the tool. Configure with the preset `package` before, which puts files where Debian has them.
#
# A package is a component of install(), listed here with name, section and description. What every
# package has beside its files (change log, copyright, compressed pages) comes from
# debian/finish.cmake.
set(library_package libtarn-utils-v4-comm${PROJECT_VERSION_MAJOR})

# Nobody answers at the address, as its end says: the project has none.
set(COMM_PACKAGE_CONTACT
  "Developers of ${PROJECT_NAME} <developers@tarn-utils-v4-comm.invalid>" CACHE STRING
  "Who answers for the packages: NAME <ADDRESS>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${COMM_PACKAGE_CONTACT}")
set(CPACK_COMPONENTS_ALL runtime development python)
if(COMM_BUILD_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/finish.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/without_scripts.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE tarn-utils-v4-comm)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The programs of a package name the libraries that they need; so the package of a library names
# itself, for the programs of others.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# The description of the project is the first line of each description.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Whole packets, with typed arguments, name/value pairs, data and file
descriptors, over local sockets that keep message boundaries.
.
This package holds the shared library.")
set(CPACK_COMM_SYMBOLS ${CMAKE_CURRENT_BINARY_DIR}/debian/symbols)  # Made by finish.cmake.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${CPACK_COMM_SYMBOLS})

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtarn-utils-v4-comm-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "This package holds the headers, the static library, the documents, the
manual pages, examples, and what CMake and pkg-config need to find them.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tarn-comm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3:any (>= 3.9), ${library_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/debian/python/postinst
  ${PROJECT_SOURCE_DIR}/cmake/debian/python/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
  "This package holds the Python package tarn_comm: packets that read and
write like Python objects, a blocking client, and connections and servers of
asyncio.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tarn-comm)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${library_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION
  "This package holds the command-line tool: it sends packets to servers,
serves, looks into connections, and decodes saved packets.")

include(CPack)
