# Installs the build into a temporary prefix and moves the prefix elsewhere: the moved mcache
# runs a small demo with its installed plug-in, examples/embed builds with find_package(MC) and
# runs twice on one folder (the second run reads back from disk), a host with its own services
# links and loads neither spdlog, fmt nor toml++, a host that calls only MC_*
# functions builds with the pkg-config flags and runs, and a C plug-in compiles with the plug-in
# pkg-config file. Variables: BUILD_DIR, SOURCE_DIR, WORK_DIR.
file(REMOVE_RECURSE "${WORK_DIR}")
set(staged "${WORK_DIR}/staged")
set(prefix "${WORK_DIR}/moved/prefix")

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

run("install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${staged}")
file(MAKE_DIRECTORY "${WORK_DIR}/moved")
file(RENAME "${staged}" "${prefix}")
foreach(f include/mc/MC.h include/mc/MC_Errors.h lib/cmake/MC/MCConfig.cmake
          lib/pkgconfig/mc.pc lib/pkgconfig/mc-plugin.pc bin/mcache
          lib/mc/mc_example_histogram_plugin.so)
  if(NOT EXISTS "${prefix}/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# The moved tool starts, finds its libraries and the plug-in beside itself.
run("the installed mcache" "${prefix}/bin/mcache" demo --folder "${WORK_DIR}/demo" --frames 12
    --width 64 --height 48 --memory-budget 64K --disk-budget 4M --quiet --json)
string(JSON plugin GET "${out}" plugin)
string(JSON computed GET "${out}" statistics computed)
if(NOT plugin STREQUAL "${prefix}/bin/../lib/mc/mc_example_histogram_plugin.so" OR computed EQUAL 0)
  message(FATAL_ERROR "the installed mcache did not use its installed plug-in: ${plugin}")
endif()

# A host built with the CMake package, run twice on one folder.
run("configure of examples/embed" ${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/embed"
    -B "${WORK_DIR}/embed" -G Ninja -DCMAKE_PREFIX_PATH=${prefix})
run("build of examples/embed" ${CMAKE_COMMAND} --build "${WORK_DIR}/embed")
run("first run of mc_embed" "${WORK_DIR}/embed/mc_embed" "${WORK_DIR}/embed-cache")
message(STATUS "first run: ${out}")
run("second run of mc_embed" "${WORK_DIR}/embed/mc_embed" "${WORK_DIR}/embed-cache")
message(STATUS "second run: ${out}")

# A host that brings its own services links MC::MC and MC::mchost only: nothing of the
# standalone host's dependencies (spdlog, fmt, toml++) may be needed by it or loaded with it.
run("configure of examples/own_services" ${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/own_services"
    -B "${WORK_DIR}/own" -G Ninja -DCMAKE_PREFIX_PATH=${prefix})
run("build of examples/own_services" ${CMAKE_COMMAND} --build "${WORK_DIR}/own")
run("run of mc_own_services" "${WORK_DIR}/own/mc_own_services")
message(STATUS "own services: ${out}")
run("ldd of mc_own_services" ldd "${WORK_DIR}/own/mc_own_services")
if(out MATCHES "spdlog|libfmt|toml" OR NOT out MATCHES "libmchost")
  message(FATAL_ERROR "a host with its own services loads the standalone dependencies:\n${out}")
endif()

# A host that calls only MC_* functions on the standalone services, built with the pkg-config
# flags (the linker may drop the direct libmchost dependency: libMC must find it by itself).
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
run("pkg-config mc-standalone" pkg-config --cflags --libs mc-standalone)
separate_arguments(flags UNIX_COMMAND "${out}")
file(WRITE "${WORK_DIR}/only_mc.cpp" "#include <cstdio>\n#include \"mc/MC.h\"\nint main() {\n"
     "  MC_Birth(false, 256, false);\n"
     "  std::puts(MC_ErrorMessage(MCp_Err_DiskFolder));\n"
     "  const bool fresh = MC_GetDiskPerformanceCounters().framesRead == 0;\n"
     "  MC_StopAllAsyncWork();\n  MC_Death();\n  return fresh ? 0 : 1;\n}\n")
run("pkg-config build" c++ "${WORK_DIR}/only_mc.cpp" -o "${WORK_DIR}/only_mc" -Wl,--as-needed
    ${flags})
run("pkg-config host" "${WORK_DIR}/only_mc")

# A C plug-in compiles with the plug-in flags (no C++ options).
run("pkg-config mc-plugin" pkg-config --cflags mc-plugin)
separate_arguments(flags UNIX_COMMAND "${out}")
run("C plug-in build" cc -std=c11 -Wall -Werror -fPIC -shared
    "${SOURCE_DIR}/examples/plugin/HistogramPlugin.c" -I "${SOURCE_DIR}/examples/plugin"
    -o "${WORK_DIR}/plugin.so" ${flags})
file(REMOVE_RECURSE "${WORK_DIR}")
