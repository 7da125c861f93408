# Windows executables and libraries: entry point, and what the system wants to find in them: version,
# manifest, message table.
enable_language(RC)
if(NOT TALVORN_MESSAGE_COMPILER)
  find_program(TALVORN_MESSAGE_COMPILER NAMES mc windmc REQUIRED)
endif()
set(resources ${PROJECT_SOURCE_DIR}/src/platform/win32/resources)

# The entry point is the wide-character one.
function(talvorn_wide_entry target)
  if(MINGW)
    target_link_options(${target} PRIVATE -municode)
  endif()
endfunction()

# talvorn_resources(TARGET DESCRIPTION [MESSAGES])
# MESSAGES: with the table of the event log's messages.
function(talvorn_resources target description)
  cmake_parse_arguments(PARSE_ARGV 2 arg "MESSAGES" "" "")
  set(directory ${CMAKE_CURRENT_BINARY_DIR}/${target}.resources)
  set(name ${target})
  set(messages)
  get_target_property(kind ${target} TYPE)
  if(kind STREQUAL SHARED_LIBRARY)
    set(type VFT_DLL)
    set(file talvorn.dll)
    set(manifest)
  else()
    set(type VFT_APP)
    set(file ${target}.exe)
    # RT_MANIFEST, the manifest of the process itself.
    set(manifest "1 24 \"executable.manifest\"")
  endif()
  if(arg_MESSAGES)
    set(messages "#include \"events.rc\"")
    add_custom_command(
      OUTPUT ${directory}/events.rc
      COMMAND ${TALVORN_MESSAGE_COMPILER} -h ${directory} -r ${directory} ${resources}/events.mc
      DEPENDS ${resources}/events.mc
      VERBATIM)
    target_sources(${target} PRIVATE ${directory}/events.rc)
    set_source_files_properties(${directory}/executable.rc PROPERTIES
      OBJECT_DEPENDS "${resources}/executable.manifest;${directory}/events.rc")
  else()
    set_source_files_properties(${directory}/executable.rc PROPERTIES
      OBJECT_DEPENDS ${resources}/executable.manifest)
  endif()
  configure_file(${resources}/executable.rc.in ${directory}/executable.rc @ONLY)
  target_sources(${target} PRIVATE ${directory}/executable.rc)
  # events.rc is only included.
  set_source_files_properties(${directory}/events.rc PROPERTIES HEADER_FILE_ONLY ON)
  target_include_directories(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:RC>:${resources}> $<$<COMPILE_LANGUAGE:RC>:${directory}>)
  if(MSVC)
    target_link_options(${target} PRIVATE /MANIFEST:NO)
  endif()
endfunction()
