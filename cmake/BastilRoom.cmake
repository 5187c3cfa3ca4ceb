# A room is one folder of src/ and one target. bastil_room(NAME SOURCES ... USES ...) declares it
# and the rooms that it uses; bastil_library() builds libquarnbastil.so from all rooms.
include(CheckLinkerFlag)
include(GNUInstallDirs)

# Both include roots are installed into one folder, since all rooms have different names.
set(BASTIL_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/quarnbastil)

# The namespaces of all names that the library exports. A marked name in another namespace stays
# hidden, and its first user fails to link.
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

# Unmarked names are hidden, except instances of the standard library's templates, which are
# declared visible. The linker hides those.
function(bastil_version_script file)
  foreach(name IN LISTS BASTIL_NAMESPACES)
    string(LENGTH ${name} length)
    set(mangled ${length}${name})
    # Functions and data; vtables and type infos, whose names only the class's own library reads;
    # guards; thunks; formatters of the value types.
    string(APPEND patterns "    _ZN${mangled}*; _ZN[KORV]${mangled}*; _ZNK[OR]${mangled}*;\n"
                           "    _ZT[CITV]N${mangled}*; _ZGVN${mangled}*; _ZT[chv]*_N*${mangled}*;\n"
                           "    _ZN*3fmt*9formatterIN${mangled}*;\n")
  endforeach()
  file(CONFIGURE OUTPUT "${file}" CONTENT "{\n  global:\n${patterns}  local: *;\n};\n" @ONLY)
endfunction()

# bastil_room_sources(OUTPUT ROOM): the sources of a room as absolute paths, with their own compile
# options, for a target in another directory that compiles them once more.
function(bastil_room_sources output room)
  get_target_property(sources room_${room} SOURCES)
  get_target_property(folder room_${room} SOURCE_DIR)
  list(TRANSFORM sources PREPEND "${folder}/")
  foreach(source IN LISTS sources)
    get_source_file_property(options ${source} TARGET_DIRECTORY room_${room} COMPILE_OPTIONS)
    if(options)
      set_source_files_properties(${source} PROPERTIES COMPILE_OPTIONS "${options}"
                                  SKIP_PRECOMPILE_HEADERS ON)
    endif()
  endforeach()
  set(${output} ${sources} PARENT_SCOPE)
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
  # Before 1.0 minor versions may be incompatible, so the minor version is part of the soname.
  set_target_properties(quarnbastil PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(NOT BASTIL_SANITIZE)  # their runtimes leave symbols undefined and find their own by name
    set(script "${PROJECT_BINARY_DIR}/quarnbastil.map")
    bastil_version_script("${script}")
    target_link_options(quarnbastil PRIVATE "LINKER:--version-script=${script}"
                                            LINKER:--no-undefined LINKER:-z,text)
    # Calls within the library are direct, without look-ups in its import table, and the addresses
    # in its function tables need no symbols. Data may still be copied into programs. (The linker's
    # -O1 fits the hash table to the number of symbols.)
    target_link_options(quarnbastil PRIVATE LINKER:-Bsymbolic-functions LINKER:-O1)
    # Relocations then take one bit per word instead of 24 bytes (130 KB less). C libraries before
    # 2.36 do not support this format and refuse the file by name.
    check_linker_flag(CXX LINKER:-z,pack-relative-relocs BASTIL_LINKER_PACKS_RELOCATIONS)
    if(BASTIL_LINKER_PACKS_RELOCATIONS)
      target_link_options(quarnbastil PRIVATE LINKER:-z,pack-relative-relocs)
    endif()
    set_target_properties(quarnbastil PROPERTIES LINK_DEPENDS "${script}")
  endif()
endfunction()
