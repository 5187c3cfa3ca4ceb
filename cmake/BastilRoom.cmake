# A room is one folder of src/ and one target. bastil_room(NAME SOURCES ... USES ...) declares it
# with the rooms that it stands on; bastil_library() makes libquarnbastil.so of all rooms.
include(CheckLinkerFlag)
include(GNUInstallDirs)

# Both include roots become one below the prefix: no two rooms have the same name.
set(BASTIL_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/quarnbastil)

# All names that the library offers stand in these namespaces. A marked name of another one stays
# inside, and its first user fails to link.
set(BASTIL_NAMESPACES Fenrik OvSlab Kiv KivFenrik OvFmt Blipline KivSharedMem KivDrift Drift Stavro
                      Asic OvmResourceTable QuarnLpmLib QuarnL3NiLib QuarnBastil)

function(bastil_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES" ${ARGN})
  add_library(room_${name} OBJECT ${ROOM_SOURCES})
  target_include_directories(room_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src"
                                                 "${PROJECT_SOURCE_DIR}/src/platform")
  target_compile_definitions(room_${name} PRIVATE QUARNBASTIL_BUILDING)
  target_link_libraries(room_${name} PUBLIC fmt::fmt)
  foreach(lower IN LISTS ROOM_USES)
    if(NOT TARGET room_${lower})
      message(FATAL_ERROR "${name} is declared before ${lower}, on which it stands")
    endif()
    target_link_libraries(room_${name} PUBLIC room_${lower})
  endforeach()
  bastil_parse_once(room_${name} library)
  set_property(GLOBAL APPEND PROPERTY BASTIL_ROOMS ${name})
  install(DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}" DESTINATION ${BASTIL_HEADER_DIR}
          FILES_MATCHING PATTERN "*.h")
endfunction()

# Visibility hides what is not marked, except what the compiler makes of the standard library's
# templates, which say themselves that they are visible. The linker hides those.
function(bastil_version_script file)
  foreach(name IN LISTS BASTIL_NAMESPACES)
    string(LENGTH ${name} length)
    set(mangled ${length}${name})
    # Functions and data; tables and type infos, of which only the class's own library reads the
    # name; guards; thunks; formatters of the value types.
    string(APPEND patterns "    _ZN${mangled}*; _ZN[KORV]${mangled}*; _ZNK[OR]${mangled}*;\n"
                           "    _ZT[CITV]N${mangled}*; _ZGVN${mangled}*; _ZT[chv]*_N*${mangled}*;\n"
                           "    _ZN*3fmt*9formatterIN${mangled}*;\n")
  endforeach()
  file(CONFIGURE OUTPUT "${file}" CONTENT "{\n  global:\n${patterns}  local: *;\n};\n" @ONLY)
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
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src/platform>
      $<INSTALL_INTERFACE:${BASTIL_HEADER_DIR}>)
  target_compile_features(quarnbastil PUBLIC cxx_std_20)
  target_link_libraries(quarnbastil PUBLIC fmt::fmt)
  # Before 1.0 a minor version may change anything, so it is part of the soname.
  set_target_properties(quarnbastil PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(NOT BASTIL_SANITIZE)  # whose runtimes leave symbols undefined and look for their own by name
    set(script "${PROJECT_BINARY_DIR}/quarnbastil.map")
    bastil_version_script("${script}")
    target_link_options(quarnbastil PRIVATE "LINKER:--version-script=${script}"
                                            LINKER:--no-undefined LINKER:-z,text)
    # Calls within the library are calls, not look-ups through its table of imports, and the
    # addresses in its tables of functions need no name. Data stays open to the copies that
    # programs make of it. (-O1 is the linker's own: it sizes the table of names to their number.)
    target_link_options(quarnbastil PRIVATE LINKER:-Bsymbolic-functions LINKER:-O1)
    # What is left to do at load is then one bit a word instead of 24 bytes (130 KB less). A C
    # library before 2.36, which does not know that form, refuses the file by name.
    check_linker_flag(CXX LINKER:-z,pack-relative-relocs BASTIL_LINKER_PACKS_RELOCATIONS)
    if(BASTIL_LINKER_PACKS_RELOCATIONS)
      target_link_options(quarnbastil PRIVATE LINKER:-z,pack-relative-relocs)
    endif()
    set_target_properties(quarnbastil PROPERTIES LINK_DEPENDS "${script}")
  endif()
endfunction()
