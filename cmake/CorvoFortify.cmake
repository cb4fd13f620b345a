# Adds the highest level of the C library's checked functions that the compiler takes, for each build
# type that optimises (the checks need it) and whose options and compiler name no level themselves.

include(CheckCXXSourceCompiles)

# Adds the level for one build type.
function(corvo_fortify type)
  set(CMAKE_TRY_COMPILE_CONFIGURATION "${type}")
  check_cxx_source_compiles("
    #if defined _FORTIFY_SOURCE || !defined __OPTIMIZE__
    #error
    #endif
    int main() {}" CORVO_FORTIFY_${type})
  if(CORVO_FORTIFY_${type})
    target_compile_definitions(corvo_compile INTERFACE
      $<$<CONFIG:${type}>:_FORTIFY_SOURCE=$<IF:$<BOOL:${CORVO_TAKES_FORTIFY_3}>,3,2>>)
  endif()
endfunction()

function(corvo_fortify_all)
  # The C library's headers fall back to a lower level where the compiler lacks what they need.
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("
    #include <cstdlib>
    #if __USE_FORTIFY_LEVEL < 3
    #error
    #endif
    int main() {}" CORVO_TAKES_FORTIFY_3)
  set(CMAKE_REQUIRED_FLAGS "")
  set(types ${CMAKE_BUILD_TYPE})
  if(CMAKE_CONFIGURATION_TYPES)
    set(types ${CMAKE_CONFIGURATION_TYPES})
  endif()
  foreach(type IN LISTS types)
    corvo_fortify(${type})
  endforeach()
endfunction()

corvo_fortify_all()
