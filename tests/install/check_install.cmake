# Installs the build into a fresh prefix, builds examples/embed against the installed package
# with find_package(MC CONFIG), checks the pkg-config file, and runs the example.
# Variables: BUILD_DIR, SOURCE_DIR, WORK_DIR.
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
foreach(f include/mc/MC.h include/mc/host/HostServices.h lib/cmake/MC/MCConfig.cmake
          lib/pkgconfig/mc.pc)
  if(NOT EXISTS "${WORK_DIR}/prefix/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
execute_process(COMMAND pkg-config --cflags --libs "${WORK_DIR}/prefix/lib/pkgconfig/mc.pc"
                RESULT_VARIABLE rc OUTPUT_VARIABLE flags)
if(rc OR NOT flags MATCHES "-lMC")
  message(FATAL_ERROR "pkg-config file unusable: ${flags}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/embed" -B "${WORK_DIR}/build"
                        -G Ninja -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc)
  message(FATAL_ERROR "configure of the example failed:\n${out}\n${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}/build"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc)
  message(FATAL_ERROR "build of the example failed:\n${out}\n${err}")
endif()
execute_process(COMMAND "${WORK_DIR}/build/mc_embed" RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
message(STATUS "${out}")
if(rc)
  message(FATAL_ERROR "the example failed (${rc}):\n${out}\n${err}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
