# sdconfig_generate_keys(TARGET [HEADER NAME] [NAMESPACE NAME] FILE...)
#
# Gives a target the keys that files describe, as constants of a header that is made when a file changes: include
# "TARGET_keys.h", or what HEADER says. NAMESPACE: one around those that the keys' names make.
function(sdconfig_generate_keys target)
    cmake_parse_arguments(PARSE_ARGV 1 KEYS "" "HEADER;NAMESPACE" "")
    if(NOT KEYS_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "sdconfig_generate_keys(${target}) names no file of descriptions")
    endif()
    if(NOT KEYS_HEADER)
        set(KEYS_HEADER ${target}_keys.h)
    endif()
    foreach(file ${KEYS_UNPARSED_ARGUMENTS})
        cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        list(APPEND files ${file})
    endforeach()
    set(folder ${CMAKE_CURRENT_BINARY_DIR}/sdconfig-keys/${target})
    file(MAKE_DIRECTORY ${folder})
    add_custom_command(OUTPUT ${folder}/${KEYS_HEADER}
        COMMAND sdconfig::keygen ${files} -o ${folder}/${KEYS_HEADER} "$<$<BOOL:${KEYS_NAMESPACE}>:--namespace=${KEYS_NAMESPACE}>"
        DEPENDS ${files} sdconfig::keygen COMMAND_EXPAND_LISTS VERBATIM)
    target_sources(${target} PRIVATE ${folder}/${KEYS_HEADER})
    target_include_directories(${target} PRIVATE ${folder})
endfunction()
