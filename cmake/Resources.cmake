# Resources of the executables. Windows links an .rc file into each executable that needs one (a
# resource object inside a static library would never be linked); POSIX compiles the same files
# into the platform library as byte arrays (cmake/EmbedFile.cmake), where FindModuleResource
# finds them.
include_guard(GLOBAL)

# orlenda_embed_settings_schema(<target>): the target executable carries the settings schema as
# resource RT_HTML 101. Nothing to do on POSIX, where the platform library holds it.
function(orlenda_embed_settings_schema target)
  if(WIN32)
    get_filename_component(settings ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../src/settings ABSOLUTE)
    target_sources(${target} PRIVATE ${settings}/settings_schema.rc)
    # windres leaves no dependency file: name the embedded file so that a change to it relinks.
    set_source_files_properties(${settings}/settings_schema.rc TARGET_DIRECTORY ${target}
      PROPERTIES OBJECT_DEPENDS ${settings}/settings-schema.xml)
  endif()
endfunction()

# orlenda_generate_embedded_resources(<target> <type>:<id>:<path>...): generates the POSIX
# resource table from the files and adds it to <target> (the platform library).
function(orlenda_generate_embedded_resources target)
  set(output ${CMAKE_CURRENT_BINARY_DIR}/embedded_resources.cpp)
  set(files)
  foreach(entry IN LISTS ARGN)
    string(REGEX REPLACE "^[0-9]+:[0-9]+:" "" path "${entry}")
    list(APPEND files ${path})
  endforeach()
  string(REPLACE ";" "|" resources "${ARGN}")
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${output} "-DRESOURCES=${resources}"
            -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/EmbedFile.cmake
    DEPENDS ${files} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/EmbedFile.cmake
    COMMENT "Embedding resources"
    VERBATIM)
  target_sources(${target} PRIVATE ${output})
endfunction()
