include(CMakePackageConfigHelpers)

install(TARGETS Tamlo EXPORT TamloTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${TAMLO_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Tamlo)

set(TAMLO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tamlo)
install(EXPORT TamloTargets NAMESPACE Tamlo:: DESTINATION ${TAMLO_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TamloConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TamloConfig.cmake INSTALL_DESTINATION ${TAMLO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TamloConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TamloConfig.cmake ${PROJECT_BINARY_DIR}/TamloConfigVersion.cmake
  DESTINATION ${TAMLO_CMAKE_DIR})

file(RELATIVE_PATH TAMLO_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/tamlo.pc.in ${PROJECT_BINARY_DIR}/tamlo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tamlo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
