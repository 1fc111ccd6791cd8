# What a host needs, and the command. Everything installed is found relative to where it lies, so that the folder can be
# moved, and `cmake --install BUILD --prefix ELSEWHERE` works.
include(CMakePackageConfigHelpers)

install(TARGETS MeruLib EXPORT MeruLibTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/meru DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

if(TARGET meru)  # installed by its own folder; here it learns where its library lies
  file(RELATIVE_PATH library_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(meru PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_bin}")
endif()

# find_package(MeruLib) and the target MeruLib::MeruLib
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/MeruLib)
install(EXPORT MeruLibTargets NAMESPACE MeruLib:: DESTINATION ${cmake_dir} FILE MeruLibTargets.cmake)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/MeruLibConfig.cmake.in ${PROJECT_BINARY_DIR}/MeruLibConfig.cmake
                              INSTALL_DESTINATION ${cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MeruLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/MeruLibConfig.cmake ${PROJECT_BINARY_DIR}/MeruLibConfigVersion.cmake
        DESTINATION ${cmake_dir})

# pkg-config merulib
file(RELATIVE_PATH PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/merulib.pc.in ${PROJECT_BINARY_DIR}/merulib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/merulib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
