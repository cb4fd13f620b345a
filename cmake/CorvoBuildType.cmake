# Where nobody names a build type, it is what the preset release ships: optimised, with debug
# information and link-time optimisation.

get_property(multi_config GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(NOT multi_config AND NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Debug, Release, RelWithDebInfo, ..." FORCE)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT ipo_supported LANGUAGES CXX)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ${ipo_supported} CACHE BOOL "Optimise across sources")
endif()
