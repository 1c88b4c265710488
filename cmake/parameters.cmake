# Compiles the parameter files in: params/embed.py writes one source per file of the manifest. The check runs at
# configure time too, so that a wrong file stops the build at once.

find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(params_tool ${PROJECT_SOURCE_DIR}/params/embed.py)
set(params_manifest ${PROJECT_SOURCE_DIR}/params/manifest.json)
file(READ ${params_manifest} manifest_text)
string(JSON params_count LENGTH "${manifest_text}")
math(EXPR params_last "${params_count} - 1")
foreach(i RANGE ${params_last})
  string(JSON name MEMBER "${manifest_text}" ${i})
  list(APPEND params_files ${QUIBO_PARAMS_DIR}/${name})
  cmake_path(REPLACE_EXTENSION name cpp)
  list(APPEND QUIBO_PARAMETER_SOURCES ${PROJECT_BINARY_DIR}/params/${name})
endforeach()

set(params_command ${Python3_EXECUTABLE} ${params_tool} ${params_manifest} ${QUIBO_PARAMS_DIR}
  ${PROJECT_BINARY_DIR}/params)
execute_process(COMMAND ${params_command} RESULT_VARIABLE params_result ERROR_VARIABLE params_errors)
if(NOT params_result EQUAL 0)
  message(FATAL_ERROR "The parameter files in ${QUIBO_PARAMS_DIR} do not fit:\n${params_errors}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${params_manifest})
add_custom_command(OUTPUT ${QUIBO_PARAMETER_SOURCES} COMMAND ${params_command}
  DEPENDS ${params_tool} ${PROJECT_SOURCE_DIR}/params/safetensors_file.py ${PROJECT_SOURCE_DIR}/params/keyword_table.py
    ${PROJECT_SOURCE_DIR}/params/syllable_names.py ${PROJECT_SOURCE_DIR}/params/syllables.txt
    ${params_manifest} ${params_files}
  COMMENT "Embedding the parameters of ${QUIBO_PARAMS_DIR}" VERBATIM)
