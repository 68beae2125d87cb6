# Installation: headers, the three shared libraries, a CMake package (find_package(MC CONFIG),
# targets MC::MC, MC::mchost and MC::standalone), pkg-config files (mc.pc for hosts with their own
# services, mc-standalone.pc for hosts that use the standalone services, mc-plugin.pc for C
# plug-ins); the mcache tool and the example plug-in when they are built. The installed tree is
# relocatable: run paths are relative to $ORIGIN and the pkg-config files find their prefix from
# where they lie.
include(CMakePackageConfigHelpers)

# The libraries find each other beside themselves; mcache finds them from bin/.
file(RELATIVE_PATH _mc_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(MC mchost mc_standalone PROPERTIES INSTALL_RPATH "$ORIGIN")
if(TARGET mcache)
  set_target_properties(mcache PROPERTIES INSTALL_RPATH "$ORIGIN/${_mc_bin_to_lib}")
endif()

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

# ${pcfiledir}/<this> is the prefix, wherever the tree has been moved.
file(RELATIVE_PATH MC_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" MC_PC_TO_PREFIX "${MC_PC_TO_PREFIX}")
foreach(pc mc mc-standalone mc-plugin)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

if(TARGET mcache)
  install(TARGETS mcache RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET mc_example_histogram_plugin)
  install(TARGETS mc_example_histogram_plugin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/mc)
endif()
