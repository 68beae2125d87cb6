# Shared compile settings: warnings as errors on our own code, optional sanitizers.
add_library(mc_warnings INTERFACE)
target_compile_options(mc_warnings INTERFACE -Wall -Wextra -Werror)

add_library(mc_sanitize INTERFACE)
if(MC_SANITIZE)
  target_compile_options(mc_sanitize INTERFACE -fsanitize=${MC_SANITIZE} -fno-omit-frame-pointer
                                               -fno-sanitize-recover=all)
  target_link_options(mc_sanitize INTERFACE -fsanitize=${MC_SANITIZE})
  # Sanitizer instrumentation makes GCC's flow warnings misfire inside Boost and the standard
  # library (reported as maybe-uninitialized); they stay errors in the plain builds.
  target_compile_options(mc_warnings INTERFACE -Wno-maybe-uninitialized)
endif()

# mc_glob_sources(<out-var> <folder>...): every .cpp/.c under the folders (not recursive).
function(mc_glob_sources out)
  set(result)
  foreach(dir IN LISTS ARGN)
    file(GLOB found CONFIGURE_DEPENDS ${dir}/*.cpp ${dir}/*.c)
    list(APPEND result ${found})
  endforeach()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

# The folder of operating-system code beside each portable folder (posix/ or windows/).
if(WIN32)
  set(MC_PLATFORM_DIR windows)
else()
  set(MC_PLATFORM_DIR posix)
endif()
