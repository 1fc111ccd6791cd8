# cpack: a Debian package of each component, or one archive where there is no dpkg.
if(NOT PROJECT_SOURCE_DIR STREQUAL CMAKE_SOURCE_DIR)
  return()  # a part of another project, which has packages of its own
endif()

set(CPACK_PACKAGE_NAME merulib)
set(CPACK_PACKAGE_CONTACT "MeruLib developers <merulib@example.com>")
set(CPACK_PACKAGE_VENDOR "MeruLib developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

find_program(MERU_DPKG dpkg)
find_program(MERU_GZIP gzip)
if(NOT MERU_DPKG OR NOT MERU_GZIP)
  set(CPACK_GENERATOR TGZ)
  include(CPack)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where dpkg-shlibdeps finds the command's library, which is not installed yet. CMake has a variable for it, but not 3.18.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/options.cmake
     CONTENT "set(ENV{LD_LIBRARY_PATH} \"@PROJECT_BINARY_DIR@/src\")\n" @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/debian/options.cmake)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(debian ${CMAKE_CURRENT_LIST_DIR}/debian)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${debian}/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(COMMAND ${MERU_GZIP} -9nkf ${PROJECT_BINARY_DIR}/debian/changelog)

set(about "The application pushes raw images and sound as it captures them, and the
library converts, encodes and writes them into a movie file, a live stream or
several of each. A movie that a crash cut short is repaired from a small index
that is recorded beside it.")

# meru_package(COMPONENT NAME SECTION TITLE TEXT): what the three have in common
macro(meru_package component name section title text)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${title}\n${about}\n.\n${text}")
  install(FILES ${debian}/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz COMPONENT ${component} EXCLUDE_FROM_ALL
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name})
endmacro()

set(library libmerulib${PROJECT_VERSION_MAJOR})
meru_package(library ${library} libs "recording library between an application and FFmpeg"
             "This package holds the shared library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/triggers)

meru_package(development libmerulib-dev libdevel "recording library between an application and FFmpeg - development"
             "This package holds the headers, and what CMake and pkg-config find the library\nby.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")

if(TARGET meru)
  meru_package(tools merulib-tools video "recorder of the screen, and repair of cut movies"
               "This package holds the command meru, which records the screen with its sound,\nrecords images and sound from files and pipes, and repairs movies that were cut.")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
endif()
include(CPack)
