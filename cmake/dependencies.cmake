# Everything that we build on, all of it from the distribution's packages. scripts/setup installs the same list.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd>=252)
pkg_check_modules(LIBSECRET QUIET IMPORTED_TARGET libsecret-1>=0.20)
if(BUILD_TESTING)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()

# A library that is loaded when it is first needed (base/shared_library.h): NAME has the headers of TARGET, and what FILE
# would be linked as, its soname, in the macro MACRO.
function(sd_on_demand name target file macro)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${CMAKE_READELF} -d ${file}
        OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
    if(NOT dynamic MATCHES "\\(SONAME\\)[^[]*\\[([^]]+)\\]")
        message(FATAL_ERROR "${file} is no shared library with a soname")
    endif()
    add_library(${name} INTERFACE)
    target_include_directories(${name} SYSTEM INTERFACE $<TARGET_PROPERTY:${target},INTERFACE_INCLUDE_DIRECTORIES>)
    target_compile_definitions(${name} INTERFACE ${macro}="${CMAKE_MATCH_1}")
    target_link_libraries(${name} INTERFACE ${CMAKE_DL_LIBS})
endfunction()
sd_on_demand(sqlite_on_demand SQLite::SQLite3 ${SQLite3_LIBRARY} SQLITE_SONAME)
sd_on_demand(openssl_on_demand OpenSSL::Crypto ${OPENSSL_CRYPTO_LIBRARY} OPENSSL_SONAME)
