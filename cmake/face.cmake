# ttyline_face(NAME DIRECTORY VERSION SOURCES...): one face of the system as the
# shared library NAME and the static library NAME_static, both made from the
# same objects. The first number of the version is the interface's.
function(ttyline_face name directory version)
  add_library(${name}_objects OBJECT ${ARGN})
  target_link_libraries(${name}_objects PRIVATE ttyline_core_options)
  target_include_directories(${name}_objects PRIVATE
      ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  # Each face owns a copy of common/ and of its state; the name keeps the two
  # apart where both are linked statically into one program.
  target_compile_definitions(${name}_objects PRIVATE TTYLINE_FACE=face_${name})
  set_target_properties(${name}_objects PROPERTIES
      POSITION_INDEPENDENT_CODE ON
      CXX_VISIBILITY_PRESET hidden
      VISIBILITY_INLINES_HIDDEN ON)

  string(REGEX REPLACE "[.].*" "" interface ${version})
  set(version_script ${PROJECT_SOURCE_DIR}/${directory}/lib${name}.map)
  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
  target_link_options(${name} PRIVATE
      -Wl,--version-script=${version_script} -Wl,-z,relro,-z,now)
  if(NOT TTYLINE_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
  set_target_properties(${name} PROPERTIES
      VERSION ${version}
      SOVERSION ${interface}
      LINK_DEPENDS ${version_script})

  add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name}_static PROPERTIES
      OUTPUT_NAME ${name} EXPORT_NAME ${name}_static)

  foreach(library IN ITEMS ${name} ${name}_static)
    add_library(ttyline::${library} ALIAS ${library})
    set_target_properties(${library} PROPERTIES LINKER_LANGUAGE C)
    target_link_libraries(${library} PRIVATE
        $<BUILD_INTERFACE:ttyline_core_options>)
    target_include_directories(${library} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  endforeach()

  if(TTYLINE_COVERAGE)
    # Whole and in one order in every program: programs whose profiles are
    # alike in size but not in order would be taken for one another.
    target_link_options(${name}_static INTERFACE -fprofile-instr-generate
        "SHELL:-Wl,--whole-archive,$<TARGET_FILE:${name}_static>,--no-whole-archive")
  endif()
endfunction()
