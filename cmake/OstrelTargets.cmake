# Helpers for our own targets: one place for warnings, visibility and the compilation of kernels.

add_library(ostrel_warnings INTERFACE)
target_compile_options(ostrel_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wconversion;-Wshadow;-Werror>
  $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-Wall,-Wextra,-Wshadow>)
if(OSTREL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 sees uninitialised values in its own <regex> where the sanitizers instrument it; the release build
  # keeps the warning.
  target_compile_options(ostrel_warnings INTERFACE -Wno-maybe-uninitialized)
endif()

# A file with kernels: nvcc compiles it for cuda, the C++ compiler for host. Files of one target may hold
# kernels of one name in anonymous namespaces, so they stay out of unity builds.
function(ostrel_kernel_sources)
  if(OSTREL_DEVICE STREQUAL "host")
    set_source_files_properties(${ARGN} PROPERTIES LANGUAGE CXX COMPILE_OPTIONS "-xc++"
      SKIP_UNITY_BUILD_INCLUSION ON)
  else()
    set_source_files_properties(${ARGN} PROPERTIES LANGUAGE CUDA)
  endif()
endfunction()

# ostrel_add_library(name SOURCES ... [KERNELS ...] [LINK ...]): a folder under src/, a position-independent
# static library with hidden symbols.
function(ostrel_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;KERNELS;LINK" ${ARGN})
  if(ARG_KERNELS)
    ostrel_kernel_sources(${ARG_KERNELS})
  endif()
  add_library(${name} STATIC ${ARG_SOURCES} ${ARG_KERNELS})
  set_target_properties(${name} PROPERTIES
    CXX_VISIBILITY_PRESET hidden CUDA_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE ostrel_warnings)
endfunction()

# ostrel_add_standin(name SOURCES ... [KERNELS ...] [LINK ...]): a shared library under platform/ with
# default visibility, so that a process has one registry, one set of counters and one set of fault hooks.
function(ostrel_add_standin name)
  cmake_parse_arguments(ARG "" "" "SOURCES;KERNELS;LINK" ${ARGN})
  if(ARG_KERNELS)
    ostrel_kernel_sources(${ARG_KERNELS})
  endif()
  add_library(${name} SHARED ${ARG_SOURCES} ${ARG_KERNELS})
  set_property(GLOBAL APPEND PROPERTY OSTREL_STANDINS ${name})
  target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE ostrel_warnings)
endfunction()

# What the thread sanitizer builds.
add_custom_target(threaded_tests)

# ostrel_add_test(name LABELS unit SOURCES ... LINK ... [KERNELS ...] [BOTH_STREAM_MODES] [ON_DEVICE] [THREADED]
# [HOST_ONLY]): a GoogleTest program.
# BOTH_STREAM_MODES: it works on the device. For host it is registered a second time with deferred streams; for cuda it
# is NAME_cuda with the label `gpu`, and skipped, with a word about it, where there is no GPU. The bodies are the same;
# what they ask of the stand-in alone skips the test that asks (tests/support/gpu).
# ON_DEVICE: it works on the device too, in one mode, and needs more than a GPU machine has (tools/bundle_tests.sh).
# THREADED adds the label `threaded`, which is what the thread sanitizer runs.
# HOST_ONLY: tests of the stand-ins themselves, which no build for a GPU has.
# OpenMP's threads wait asleep: tests share their cores, and threads that spin at a barrier for one that has no core
# lose all the time that the others need.
function(ostrel_add_test name)
  cmake_parse_arguments(ARG "BOTH_STREAM_MODES;ON_DEVICE;THREADED;HOST_ONLY" "" "SOURCES;LINK;LABELS;KERNELS" ${ARGN})
  if(ARG_HOST_ONLY AND OSTREL_DEVICE STREQUAL "cuda")
    return()
  endif()
  if(ARG_KERNELS)
    ostrel_kernel_sources(${ARG_KERNELS})
  endif()
  add_executable(${name} ${ARG_SOURCES} ${ARG_KERNELS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
  target_compile_definitions(${name} PRIVATE OSTREL_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
  target_link_libraries(${name} PRIVATE ${ARG_LINK} ostrel_test_device ostrel_warnings)
  set(labels ${ARG_LABELS})
  if((ARG_BOTH_STREAM_MODES OR ARG_ON_DEVICE) AND OSTREL_DEVICE STREQUAL "cuda")
    target_link_libraries(${name} PRIVATE ostrel_gpu_test_main)
    add_test(NAME ${name}_cuda COMMAND ${name})
    set_tests_properties(${name}_cuda PROPERTIES LABELS "${labels};gpu" SKIP_RETURN_CODE 77 RESOURCE_LOCK gpu)
    if(ARG_BOTH_STREAM_MODES)
      set_property(GLOBAL APPEND PROPERTY OSTREL_GPU_TESTS ${name})
    endif()
    return()
  endif()
  target_link_libraries(${name} PRIVATE GTest::gmock GTest::gtest_main)
  if(ARG_THREADED)
    list(APPEND labels threaded)
    add_dependencies(threaded_tests ${name})
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${labels}" ENVIRONMENT "OSTREL_STREAM_MODE=eager;OMP_WAIT_POLICY=passive")
  if(ARG_BOTH_STREAM_MODES)
    add_test(NAME ${name}_deferred COMMAND ${name})
    set(environment "OSTREL_STREAM_MODE=deferred" "OMP_WAIT_POLICY=passive")
    # The lock of the pool of threads orders streams by accident, and so would hide races between them.
    if(OSTREL_SANITIZE MATCHES "thread")
      list(APPEND environment "OSTREL_WORKER_COUNT=1")
    endif()
    set_tests_properties(${name}_deferred PROPERTIES LABELS "${labels};deferred" ENVIRONMENT "${environment}")
  endif()
endfunction()
