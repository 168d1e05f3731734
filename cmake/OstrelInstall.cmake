# What `cmake --install` puts where, below one prefix that can be moved as a whole:
#   lib/                    the plug-in, and the stand-ins that it was linked with
#   bin/                    the programs, where they are built
#   include/ostrel_plugin/  the headers of the stand-ins that a host compiles against
#   share/ostrel_plugin/    models, configurations, documentation, examples, the CMake package
# With OSTREL_AMENT the same, and the package is registered with ament.

set(share share/ostrel_plugin)

install(TARGETS ostrel_plugin LIBRARY DESTINATION lib)
get_property(standins GLOBAL PROPERTY OSTREL_STANDINS)
if(standins)
  install(TARGETS ${standins} LIBRARY DESTINATION lib)
endif()
if(OSTREL_BUILD_APPS)
  install(TARGETS ostrel_host ostrel_backbone RUNTIME DESTINATION bin)
endif()

if(OSTREL_HOST_FRAMEWORK STREQUAL "standin")
  install(DIRECTORY platform/host_framework/include/ DESTINATION include/ostrel_plugin)
endif()
if(OSTREL_OPTRIX STREQUAL "standin")
  install(DIRECTORY platform/optrix/include/ DESTINATION include/ostrel_plugin)
  if(OSTREL_DEVICE STREQUAL "host")   # the pictures' header includes <cuda_runtime.h>
    install(DIRECTORY platform/host_cuda/include/ DESTINATION include/ostrel_plugin/host_cuda)
  endif()
endif()

install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${share})
install(DIRECTORY docs DESTINATION ${share})

# A folder that the checkout has goes in whole. One that it does not have is told, and an empty one is refused: a
# package never lacks quietly what somebody meant to ship.
foreach(folder models configs)
  install(DIRECTORY ${folder} DESTINATION ${share} OPTIONAL)   # one that comes later needs no new configuration
  set(source ${PROJECT_SOURCE_DIR}/${folder})
  if(NOT IS_DIRECTORY ${source})
    message(STATUS "The checkout has no folder '${folder}': the package will bring none")
    continue()
  endif()
  file(GLOB_RECURSE content LIST_DIRECTORIES false ${source}/*)
  if(NOT content)
    message(FATAL_ERROR "The folder '${folder}' is empty: fill it or remove it")
  endif()
endforeach()

if(OSTREL_AMENT)
  ament_package(CONFIG_EXTRAS ${PROJECT_SOURCE_DIR}/cmake/ostrel_plugin-extras.cmake.in)
else()
  include(CMakePackageConfigHelpers)
  set(package ${PROJECT_BINARY_DIR}/package)
  configure_file(cmake/ostrel_plugin-extras.cmake.in ${package}/ostrel_pluginConfig.cmake @ONLY)
  write_basic_package_version_file(${package}/ostrel_pluginConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${package}/ostrel_pluginConfig.cmake ${package}/ostrel_pluginConfigVersion.cmake
    DESTINATION ${share}/cmake)
  install(FILES package.xml DESTINATION ${share})
endif()
