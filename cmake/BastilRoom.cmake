# A room is one folder of src/ and one target. bastil_room(NAME SOURCES ... USES ...) declares it
# with the rooms that it stands on; bastil_library() makes libquarnbastil.so of all rooms.

function(bastil_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES" ${ARGN})
  add_library(room_${name} OBJECT ${ROOM_SOURCES})
  target_include_directories(room_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src"
                                                 "${PROJECT_SOURCE_DIR}/src/platform")
  target_compile_definitions(room_${name} PRIVATE QUARNBASTIL_BUILDING)
  target_link_libraries(room_${name} PUBLIC fmt::fmt)
  foreach(lower IN LISTS ROOM_USES)
    target_link_libraries(room_${name} PUBLIC room_${lower})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY BASTIL_ROOMS ${name})
endfunction()

function(bastil_library)
  get_property(rooms GLOBAL PROPERTY BASTIL_ROOMS)
  add_library(quarnbastil SHARED)
  add_library(QuarnBastil::quarnbastil ALIAS quarnbastil)
  foreach(room IN LISTS rooms)
    target_sources(quarnbastil PRIVATE $<TARGET_OBJECTS:room_${room}>)
  endforeach()
  target_include_directories(quarnbastil PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src/platform>)
  target_link_libraries(quarnbastil PUBLIC fmt::fmt)
  set_target_properties(quarnbastil PROPERTIES VERSION ${PROJECT_VERSION}
                                               SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
