# Installation: headers, the three shared libraries, a CMake package (find_package(MC CONFIG),
# targets MC::MC, MC::mchost and MC::standalone) and a pkg-config file (mc.pc); the mcache tool
# and the example plug-in when they are built.
include(CMakePackageConfigHelpers)

install(TARGETS mchost mc_standalone MC EXPORT MCTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/mc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT MCTargets NAMESPACE MC:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/MC)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/MCConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/MCConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/MC)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MCConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/MCConfig.cmake ${PROJECT_BINARY_DIR}/MCConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/MC)

configure_file(${PROJECT_SOURCE_DIR}/cmake/mc.pc.in ${PROJECT_BINARY_DIR}/mc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET mcache)
  install(TARGETS mcache RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET mc_example_histogram_plugin)
  install(TARGETS mc_example_histogram_plugin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/mc)
endif()
