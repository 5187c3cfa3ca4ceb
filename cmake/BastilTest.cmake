find_package(GTest REQUIRED)
include(GoogleTest)

# bastil_test(NAME FOLDER... [CONCURRENT [PATTERN...]]) makes one test program of all sources in the
# folders of a room. CONCURRENT makes it a part of the thread sanitizer's build too; with patterns,
# in the form of the test program's own filter, only the tests that match run there.
#
# Suites named ...Soak get the label soak: tests of random steps that are worth running for long.
function(bastil_test name)
  cmake_parse_arguments(TEST "" "" "CONCURRENT" ${ARGN})
  list(TRANSFORM TEST_UNPARSED_ARGUMENTS PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/"
       OUTPUT_VARIABLE folders)
  list(TRANSFORM folders APPEND "/*.cpp")
  file(GLOB sources CONFIGURE_DEPENDS ${folders})
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE quarnbastil GTest::gmock GTest::gtest_main)
  # Nearly all of a test runs once: it is the building that takes the time.
  target_compile_options(${name} PRIVATE -O1 -g1)
  if(NOT name STREQUAL test_ovslab)
    target_precompile_headers(${name} REUSE_FROM test_ovslab)
  else()
    target_precompile_headers(${name} PRIVATE <gmock/gmock.h> <fmt/format.h> <fmt/ranges.h>)
  endif()
  set(filter "")
  if(BASTIL_SANITIZE STREQUAL thread)
    if(NOT (TEST_CONCURRENT OR "CONCURRENT" IN_LIST TEST_KEYWORDS_MISSING_VALUES))
      set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL TRUE)
      return()
    endif()
    list(JOIN TEST_CONCURRENT ":" filter)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "${filter}-*Soak*")
  if(NOT filter)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "*Soak*"
                         PROPERTIES LABELS soak)
  endif()
endfunction()
