find_package(GTest REQUIRED)
include(GoogleTest)

# bastil_test(NAME FOLDER... [ROOMS ROOM...] [CONCURRENT [PATTERN...]] [SLOW PATTERN...]) builds one
# test program from all sources in the folders.
#
# ROOMS are the rooms that it tests, by default the first folder: `./run check ROOM` builds and runs
# it. SLOW tests are run only by `./run test`; if all are slow, `check` does not build the program.
# CONCURRENT also adds the program to the thread sanitizer's build; with patterns, only matching
# tests run there. Patterns have the form of the test program's own filter.
#
# Suites named ...Soak get the label soak: randomized tests that are worth running for long. Other
# tests are labelled with the names of their rooms, or with slow.
function(bastil_test name)
  cmake_parse_arguments(TEST "" "" "ROOMS;CONCURRENT;SLOW" ${ARGN})
  if(NOT TEST_ROOMS)
    list(GET TEST_UNPARSED_ARGUMENTS 0 TEST_ROOMS)
  endif()
  list(TRANSFORM TEST_UNPARSED_ARGUMENTS PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/"
       OUTPUT_VARIABLE folders)
  list(TRANSFORM folders APPEND "/*.cpp")
  file(GLOB sources CONFIGURE_DEPENDS ${folders})
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE quarnbastil GTest::gmock GTest::gtest_main)
  # Most test code runs once, so build time dominates.
  target_compile_options(${name} PRIVATE -O1 -g1)
  bastil_parse_once(${name} test <gmock/gmock.h> <fmt/ranges.h>)
  foreach(room IN LISTS TEST_ROOMS)
    if(NOT TARGET check_${room})
      add_custom_target(check_${room})
    endif()
    if(NOT TEST_SLOW STREQUAL "*")
      add_dependencies(check_${room} ${name})
    endif()
  endforeach()
  if(BASTIL_SANITIZE STREQUAL thread)
    if(NOT (TEST_CONCURRENT OR "CONCURRENT" IN_LIST TEST_KEYWORDS_MISSING_VALUES))
      set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL TRUE)
      return()
    endif()
    list(JOIN TEST_CONCURRENT ":" filter)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "${filter}-*Soak*")
    if(NOT filter)
      gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "*Soak*"
                           PROPERTIES LABELS soak)
    endif()
    return()
  endif()
  list(JOIN TEST_ROOMS "," rooms)
  list(JOIN TEST_SLOW ":" slow)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "-*Soak*:${slow}"
                       PROPERTIES LABELS ${rooms})
  if(slow)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "${slow}-*Soak*"
                         PROPERTIES LABELS slow)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "*Soak*"
                       PROPERTIES LABELS soak)
endfunction()
