# Dependencies of the Windows cross-build. The header-only libraries come from the Debian
# packages through a folder under the build tree that exposes only their own directories (never
# the whole system include folder); spdlog and fmt are used header-only. GoogleTest is built from
# the Debian source package. find_package() calls elsewhere resolve to the targets made here.
set(MC_DEPS_INCLUDE ${CMAKE_BINARY_DIR}/deps/include)
file(MAKE_DIRECTORY ${MC_DEPS_INCLUDE})
foreach(dir boost fmt spdlog toml++ nlohmann CLI)
  if(NOT EXISTS /usr/include/${dir})
    message(FATAL_ERROR "/usr/include/${dir} is missing (see scripts/setup.sh)")
  endif()
  file(CREATE_LINK /usr/include/${dir} ${MC_DEPS_INCLUDE}/${dir} SYMBOLIC)
endforeach()

function(mc_header_only_target name)
  add_library(${name} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${name} SYSTEM INTERFACE ${MC_DEPS_INCLUDE})
  target_compile_definitions(${name} INTERFACE ${ARGN})
endfunction()

# Boost.Uuid draws its random numbers from bcrypt on Windows.
mc_header_only_target(Boost::boost)
target_link_libraries(Boost::boost INTERFACE bcrypt)
mc_header_only_target(fmt::fmt FMT_HEADER_ONLY=1)
mc_header_only_target(spdlog::spdlog SPDLOG_HEADER_ONLY SPDLOG_FMT_EXTERNAL)
target_link_libraries(spdlog::spdlog INTERFACE fmt::fmt)
mc_header_only_target(PkgConfig::TOMLPP TOML_HEADER_ONLY=1)
mc_header_only_target(nlohmann_json::nlohmann_json)
mc_header_only_target(CLI11::CLI11)

if(MC_BUILD_TESTS)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  if(NOT TARGET GTest::gmock)
    add_library(GTest::gmock ALIAS gmock)
  endif()
endif()

# find_package(<name>) looks here first and finds the targets above.
set(CMAKE_FIND_PACKAGE_REDIRECTS_DIR ${CMAKE_BINARY_DIR}/deps/redirects)
foreach(pkg boost fmt spdlog nlohmann_json cli11 gtest)
  file(WRITE ${CMAKE_FIND_PACKAGE_REDIRECTS_DIR}/${pkg}-config.cmake "")
  file(WRITE ${CMAKE_FIND_PACKAGE_REDIRECTS_DIR}/${pkg}-config-version.cmake
       "set(PACKAGE_VERSION_COMPATIBLE TRUE)\nset(PACKAGE_VERSION_EXACT FALSE)\n")
endforeach()

# The tests run under the emulator (Wine): make its prefix once, here, rather than in the first
# test (it takes half a minute).
if(CMAKE_CROSSCOMPILING_EMULATOR AND MC_BUILD_TESTS AND NOT EXISTS ${CMAKE_BINARY_DIR}/wineprefix)
  message(STATUS "Creating the Wine prefix for the tests")
  execute_process(COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} wineboot -i
                  RESULT_VARIABLE wineboot_result OUTPUT_QUIET ERROR_QUIET)
  if(NOT wineboot_result EQUAL 0)
    message(WARNING "wineboot -i failed (${wineboot_result}); the tests may not run")
  endif()
endif()
