# What a host needs, and the command. Everything installed is found relative to where it lies, so that the folder can be
# moved, and `cmake --install BUILD --prefix ELSEWHERE` works. The components are those of the packages.
include(CMakePackageConfigHelpers)

install(TARGETS MeruLib EXPORT MeruLibTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/meru DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h")

if(TARGET meru)  # installed by its own folder; here it learns where its library lies
  file(RELATIVE_PATH library_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(origin $<IF:$<PLATFORM_ID:Darwin>,@loader_path,$ORIGIN>)
  set_target_properties(meru PROPERTIES INSTALL_RPATH "${origin}/${library_from_bin}")
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    # In /usr the loader finds the library by itself, and the system's packages may not say where it lies.
    install(CODE "if(CMAKE_INSTALL_PREFIX MATCHES \"/usr$\")
      file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/meru\")
    endif()" COMPONENT tools)
  endif()
endif()

# find_package(MeruLib) and the target MeruLib::MeruLib
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/MeruLib)
install(EXPORT MeruLibTargets NAMESPACE MeruLib:: DESTINATION ${cmake_dir} FILE MeruLibTargets.cmake
        COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/MeruLibConfig.cmake.in ${PROJECT_BINARY_DIR}/MeruLibConfig.cmake
                              INSTALL_DESTINATION ${cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MeruLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/MeruLibConfig.cmake ${PROJECT_BINARY_DIR}/MeruLibConfigVersion.cmake
        DESTINATION ${cmake_dir} COMPONENT development)

# pkg-config merulib
file(RELATIVE_PATH PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PREFIX_FROM_PC "${PREFIX_FROM_PC}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/merulib.pc.in ${PROJECT_BINARY_DIR}/merulib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/merulib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
