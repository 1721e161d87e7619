# Stops where one of FILES includes a header of this tree that is none of KNOWN and in no folder of KNOWN; else touches
# STAMP.
cmake_minimum_required(VERSION 3.25)
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH tree)
foreach(file ${FILES})
    file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<][^\">]*/")
    foreach(line ${lines})
        string(REGEX MATCH "([\"<])(([^\">]*)/[^\">/]*)" include "${line}")
        set(header ${CMAKE_MATCH_2})
        set(folder ${CMAKE_MATCH_3})
        if(CMAKE_MATCH_1 STREQUAL "<" AND NOT EXISTS ${tree}/${header})
            continue()  # the system's
        endif()
        if(NOT folder IN_LIST KNOWN AND NOT header IN_LIST KNOWN)
            message(FATAL_ERROR "${file}: its room may not know ${header}")
        endif()
    endforeach()
endforeach()
file(TOUCH ${STAMP})
