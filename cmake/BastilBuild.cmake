# Settings for all targets: language, warnings, visibility, sanitizers.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(BASTIL_TESTS "Build the test suite" ON)
option(BASTIL_BENCH "Build the benchmarks" ON)
option(BASTIL_FUZZ "Build the fuzzers (clang; BASTIL_SANITIZE=address,undefined)" OFF)
set(BASTIL_SANITIZE "" CACHE STRING "Value of -fsanitize for everything, or empty")

add_compile_options(-Wall -Wextra -Wconversion -Werror)
# Traces and assertions name sources by their path below the include root, independent of the build
# directory. (If several maps match, the last one applies.)
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=
                    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/src/=
                    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/src/platform/=)
if(BASTIL_SANITIZE)
  add_compile_options(-fsanitize=${BASTIL_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${BASTIL_SANITIZE})
  if(BASTIL_SANITIZE MATCHES undefined AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    # It compares type infos by address, but hidden types have one in each library.
    add_compile_options(-fno-sanitize=function)
  endif()
endif()

# Precompiles the external headers that most sources include, once for all targets of a kind. `./run
# lint` compiles without them, so that no source depends on them.
#
# bastil_parse_once(TARGET KIND [HEADER...]): the first target of a kind precompiles the headers,
# including those named, for all later ones. Their options must be the same.
function(bastil_parse_once target kind)
  get_property(first GLOBAL PROPERTY BASTIL_PARSES_${kind})
  if(first)
    target_precompile_headers(${target} REUSE_FROM ${first})
    return()
  endif()
  set_property(GLOBAL PROPERTY BASTIL_PARSES_${kind} ${target})
  target_precompile_headers(${target} PRIVATE
      <algorithm> <array> <chrono> <functional> <map> <memory> <mutex> <optional> <span> <string>
      <vector> <fmt/format.h> ${ARGN})
endfunction()

if(BASTIL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "BASTIL_FUZZ needs clang")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
