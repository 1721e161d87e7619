# How a target of this project is made: warnings, sanitizers, and the two kinds of rooms.

add_library(sd_warnings INTERFACE)
target_compile_options(sd_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${SDCONFIG_WERROR}>:-Werror>)

# What Debian builds its packages with. It stands in every build for use, so that what is tested is what is packed, and
# compiled once where ccache is. Paths of the building machine stay out of the programs.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT SDCONFIG_SANITIZE)
    add_compile_options(-D_FORTIFY_SOURCE=2 -fstack-protector-strong -Wformat -Werror=format-security -Wdate-time
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
endif()

if(SDCONFIG_SANITIZE)
    add_compile_options(-fsanitize=${SDCONFIG_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${SDCONFIG_SANITIZE})
endif()

# Fuzz targets reach what a platform layer hides, so its library is a static one for them. The thread sanitizer would take
# the counters that clang puts into the code for races: fuzz/counters.cpp counts instead.
set(layer_kind SHARED)
if(SDCONFIG_FUZZ)
    set(layer_kind STATIC)
    if(SDCONFIG_SANITIZE STREQUAL "thread")
        add_compile_options(-fsanitize-coverage=trace-pc,trace-cmp)
    else()
        add_compile_options(-fsanitize=fuzzer-no-link)
    endif()
endif()

# Puts into `stamp` a file for a room's sources, at whose making the build stops where one of FILES, or a header of
# `folder`, includes a header of the tree that KNOWN doesn't name, from a folder that it doesn't name either.
function(sd_checked_includes stamp folder)
    cmake_parse_arguments(CHECK "" "" "FILES;KNOWN" ${ARGN})
    string(REPLACE "/" "_" name ${folder})
    set(checked ${CMAKE_CURRENT_BINARY_DIR}/${name}.includes)
    file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
    add_custom_command(OUTPUT ${checked}
        COMMAND ${CMAKE_COMMAND} "-DFILES=${CHECK_FILES};${headers}" "-DKNOWN=${folder};${CHECK_KNOWN}"
            -DSTAMP=${checked} -P ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake
        DEPENDS ${CHECK_FILES} ${headers} ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake VERBATIM)
    set(${stamp} ${checked} PARENT_SCOPE)
endfunction()

# A room of libsdconfig: one object library, so that tests link the same objects, hidden symbols included.
# SOURCES its files; ROOMS the rooms that it may know; USES the libraries that its users never meet. KNOWS, of one
# room of a folder: which others, and which headers, the files there may include, or the build stops.
function(sd_room name)
    cmake_parse_arguments(ROOM "" "" "SOURCES;ROOMS;USES;KNOWS" ${ARGN})
    if(ROOM_KNOWS)
        cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE folder)
        file(GLOB files CONFIGURE_DEPENDS *.cpp)
        sd_checked_includes(checked ${folder} FILES ${files} KNOWN ${ROOM_KNOWS})
    endif()
    add_library(sd_${name} OBJECT ${ROOM_SOURCES} ${checked})
    target_include_directories(sd_${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(sd_${name} PUBLIC ${ROOM_ROOMS} PRIVATE ${ROOM_USES} sd_warnings)
endfunction()

# A platform layer: a shared library of its own behind one header, NAME/NAME.h; and NAME_objects, what it is made of.
# SOURCES its files; LAYERS the layers that it builds on; USES the libraries that its users never meet.
function(sd_platform_layer name)
    cmake_parse_arguments(LAYER "" "" "SOURCES;LAYERS;USES" ${ARGN})
    add_library(${name}_objects OBJECT ${LAYER_SOURCES})
    target_include_directories(${name}_objects PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name}_objects PRIVATE ${LAYER_USES} sd_warnings)
    add_library(${name} ${layer_kind} $<TARGET_OBJECTS:${name}_objects>)
    add_library(sdconfig::${name} ALIAS ${name})
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/sdconfig>)
    target_link_libraries(${name} PRIVATE ${LAYER_LAYERS} ${LAYER_USES})
endfunction()

# A test's own code runs once: what the optimizer takes for it, half of a build, it never gives back.
add_library(sd_test_code INTERFACE)
target_compile_options(sd_test_code INTERFACE $<$<NOT:$<CONFIG:Debug>>:-O0 -g1 -U_FORTIFY_SOURCE>)
target_link_libraries(sd_test_code INTERFACE sd_warnings)

# A test program: one a file or two; USES what it links besides GoogleTest and the shared pieces of tests/support.
function(sd_test name)
    cmake_parse_arguments(TEST "" "TIMEOUT" "SOURCES;USES" ${ARGN})
    add_executable(${name} ${TEST_SOURCES})
    target_link_libraries(${name} PRIVATE ${TEST_USES} sd_test_support GTest::gmock GTest::gtest_main sd_test_code)
    if(NOT TEST_TIMEOUT)
        set(TEST_TIMEOUT 600)  # a race detector is slow, and other tests run beside
    endif()
    gtest_discover_tests(${name} PROPERTIES TIMEOUT ${TEST_TIMEOUT} DISCOVERY_TIMEOUT 300)
endfunction()

# A room of the programs: a static library of a folder in apps/, named by it. It includes what it may know and nothing
# else, or the build stops.
# SOURCES its files; ROOMS the rooms of apps/ that it may know; LIBRARY the folders and headers of the library that it
# may know; LINKS what its users link, too; USES the libraries that they never meet.
function(sd_app_room folder)
    cmake_parse_arguments(ROOM "" "" "SOURCES;ROOMS;LIBRARY;LINKS;USES" ${ARGN})
    string(REPLACE "/" "_" name ${folder})
    list(TRANSFORM ROOM_ROOMS PREPEND apps/ OUTPUT_VARIABLE known)
    set(targets ${ROOM_ROOMS})
    list(TRANSFORM targets REPLACE "/" "_")
    list(TRANSFORM targets PREPEND sd_app_)
    list(TRANSFORM ROOM_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/apps/${folder}/)
    sd_checked_includes(checked apps/${folder} FILES ${ROOM_SOURCES} KNOWN ${known} ${ROOM_LIBRARY})
    add_library(sd_app_${name} STATIC ${ROOM_SOURCES} ${checked})
    set_target_properties(sd_app_${name} PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(sd_app_${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(sd_app_${name} PUBLIC ${targets} sd_app_library ${ROOM_LINKS} PRIVATE ${ROOM_USES} sd_warnings)
endfunction()
