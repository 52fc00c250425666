include(CMakePackageConfigHelpers)

set(NERVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nerva)

install(TARGETS nerva qel_permute EXPORT nervaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/nerva include/qel_permute DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/nerva/config.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nerva)
install(EXPORT nervaTargets NAMESPACE nerva:: DESTINATION ${NERVA_CMAKE_DIR})

configure_package_config_file(cmake/nervaConfig.cmake.in
  ${PROJECT_BINARY_DIR}/nervaConfig.cmake INSTALL_DESTINATION ${NERVA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nervaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nervaConfig.cmake ${PROJECT_BINARY_DIR}/nervaConfigVersion.cmake
  DESTINATION ${NERVA_CMAKE_DIR})

# The .pc file finds its prefix relative to its own folder, so the package
# stays usable after `cmake --install --prefix` to any place.
file(RELATIVE_PATH NERVA_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" NERVA_PC_TO_PREFIX "${NERVA_PC_TO_PREFIX}")
configure_file(cmake/nerva.pc.in ${PROJECT_BINARY_DIR}/nerva.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nerva.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
