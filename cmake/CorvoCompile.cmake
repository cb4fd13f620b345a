# Compiler settings that every target of the project shares.

add_library(corvo_compile INTERFACE)
target_include_directories(corvo_compile INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_definitions(corvo_compile INTERFACE _GNU_SOURCE)

target_compile_options(corvo_compile INTERFACE
  -Wall -Wextra -Wpedantic
  -Wcast-align -Wcast-qual -Wconversion -Wformat=2 -Wnon-virtual-dtor -Wnull-dereference
  -Wold-style-cast -Woverloaded-virtual -Wshadow -Wundef -Wunused
  $<$<BOOL:${CORVO_WERROR}>:-Werror>)

# GCC 12 takes inlined std::string code for overlapping copies and uninitialised reads (GCC bugs
# 105651 and 105562); later releases do not.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(corvo_compile INTERFACE -Wno-restrict -Wno-maybe-uninitialized)
endif()

# CMake before 3.23 leaves out how many jobs the linker may run, and GCC warns that it will run one.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(TRANSFORM CMAKE_CXX_COMPILE_OPTIONS_IPO REPLACE "^-flto$" "-flto=auto")
endif()

# Hardening that costs nothing at this program's scale.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
target_compile_options(corvo_compile INTERFACE -fstack-protector-strong)
# With -z now every function is found at the start, and a stub before each call only costs.
target_compile_options(corvo_compile INTERFACE -fno-plt)
target_link_options(corvo_compile INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
if(NOT CORVO_SANITIZE)
  target_compile_options(corvo_compile INTERFACE -fstack-clash-protection)
  include(CorvoFortify)
endif()

# What is shipped does not say where it was built; with link-time optimisation the linker compiles,
# too. In a debug build, debuggers and coverage have to find the sources.
set(prefix_maps
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build" "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")
target_compile_options(corvo_compile INTERFACE "$<$<NOT:$<CONFIG:Debug>>:${prefix_maps}>")
target_link_options(corvo_compile INTERFACE "$<$<NOT:$<CONFIG:Debug>>:${prefix_maps}>")

if(CORVO_SANITIZE)
  target_compile_options(corvo_compile INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(corvo_compile INTERFACE -fsanitize=address,undefined)
endif()

if(CORVO_COVERAGE)
  target_compile_options(corvo_compile INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(corvo_compile INTERFACE --coverage)
endif()
