# How everything is compiled. Every target of ours links `ue_options`; what it says holds for all.

option(UE_PROXY_TESTS "Build the unit tests" ON)
option(UE_PROXY_BENCH "Build the benchmarks" OFF)
option(UE_PROXY_HOSTILE "Build the hostile load" OFF)
option(UE_PROXY_FUZZ "Build the fuzz targets (clang)" OFF)
set(UE_PROXY_SANITIZE "" CACHE STRING "Sanitizers: address,undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_library(ue_options INTERFACE)
target_compile_options(ue_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnon-virtual-dtor -Woverloaded-virtual
  -Werror -fno-strict-aliasing)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # At -O3 it sees overlaps in string concatenation that are not there (GCC bug 105651).
  target_compile_options(ue_options INTERFACE -Wno-restrict)
endif()
target_include_directories(ue_options INTERFACE ${CMAKE_SOURCE_DIR}/src)
# _FILE_OFFSET_BITS: or a 32-bit program cannot read the directories of a large file system.
target_compile_definitions(ue_options INTERFACE UE_PROXY_VERSION="${PROJECT_VERSION}" _FILE_OFFSET_BITS=64)

if(UE_PROXY_FUZZ)
  # Every library is watched by libFuzzer; the targets of tests/fuzz link its main.
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "UE_PROXY_FUZZ needs clang++ (preset fuzz)")
  endif()
  target_compile_options(ue_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(ue_options INTERFACE -fsanitize=address,undefined)
elseif(UE_PROXY_SANITIZE)
  target_compile_options(ue_options INTERFACE -fsanitize=${UE_PROXY_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  if(UE_PROXY_SANITIZE MATCHES thread)
    # g++ cannot model Asio's fences; the warning would stop the build, the tests still see our own accesses.
    target_compile_options(ue_options INTERFACE -Wno-tsan)
  endif()
  target_link_options(ue_options INTERFACE -fsanitize=${UE_PROXY_SANITIZE})
else()
  # A terminal's network-facing daemon: hardened wherever no sanitizer takes its place; tests/check_release.sh looks
  # whether it is. -fcf-protection is left out: Debian 12's start files lack the mark, so it would never be in force.
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-fstack-clash-protection UE_PROXY_HAS_STACK_CLASH)
  target_compile_options(ue_options INTERFACE -fstack-protector-strong
    $<$<BOOL:${UE_PROXY_HAS_STACK_CLASH}>:-fstack-clash-protection>
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=3>)
  target_compile_definitions(ue_options INTERFACE _GLIBCXX_ASSERTIONS)
  target_link_options(ue_options INTERFACE -pie -Wl,-z,relro,-z,now,-z,noexecstack,-z,separate-code)
endif()

# Includes go one way (cmake/check_includes.cmake); a wrong one stops the build.
add_custom_target(check_includes ALL
  COMMAND ${CMAKE_COMMAND} -DROOT=${CMAKE_SOURCE_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/check_includes.cmake
  COMMENT "Checking that includes go one way")
