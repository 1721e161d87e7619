# cmake --install: programs, libraries, headers as they stand in the tree, a CMake package and a pkg-config file. What
# goes beside the programs is installed by packaging/CMakeLists.txt. Each component becomes a package
# (cmake/packages.cmake).
include(CMakePackageConfigHelpers)

# Found relative to where things lie, so that any prefix works without LD_LIBRARY_PATH.
set_target_properties(sdconfig sdbus sdsecurity velmarlog PROPERTIES INSTALL_RPATH "$ORIGIN")
set(data_program_dir ${CMAKE_INSTALL_LIBEXECDIR}/sdconfig)  # the second program's, which the first one starts
foreach(program_dir ${CMAKE_INSTALL_BINDIR} ${data_program_dir})
    cmake_path(ABSOLUTE_PATH program_dir BASE_DIRECTORY /)
    file(RELATIVE_PATH to_libraries ${program_dir} /${CMAKE_INSTALL_LIBDIR})
    list(APPEND rpaths $ORIGIN/${to_libraries})
endforeach()
list(GET rpaths 0 program_rpath)
list(GET rpaths 1 data_program_rpath)
set_target_properties(sdconfigd PROPERTIES INSTALL_RPATH "${program_rpath}")
set_target_properties(sdconfig_data PROPERTIES INSTALL_RPATH "${data_program_rpath}")
if(NOT SDCONFIG_LAYERS_INSIDE)
    set_target_properties(sdconfig_cli PROPERTIES INSTALL_RPATH "${program_rpath}")
endif()

install(TARGETS sdconfigd sdconfig_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
install(TARGETS sdconfig_data sdconfig_seal RUNTIME DESTINATION ${data_program_dir} COMPONENT programs)
if(TARGET sdconfig_keyring)
    install(TARGETS sdconfig_keyring RUNTIME DESTINATION ${data_program_dir} COMPONENT keyring)
endif()
install(TARGETS sdconfig sdbus sdsecurity velmarlog EXPORT sdconfig-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development)
install(TARGETS sdconfig_keygen EXPORT sdconfig-targets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT development)

set(headers
    base/quiet_thread.h base/sdconfig_export.h base/sdconfig_forms.h base/sdconfig_types.h
    libsdconfig/sdconfig.h libsdconfig/dmconfig.h libsdconfig/sdconfig_client.h
    libsdconfig/sdconfig-qt.h libsdconfig/sdconfig_export.h libsdconfig/sdconfig_key.h libsdconfig/sdconfig_settings.h
    libsdconfig/sdconfig_text.h libsdconfig/sdconfig_types.h libsdconfig/sdconfig_watch.h
    src/sdconfig_impl.h src/sdconfig_impl_property.h src/sdconfig_impl_policy.h src/sdconfig_impl_tks.h
    src/sdconfig_key_classes.h src/sdconfig_service_sdbus.h src/sdconfig_protocol.h
    sql/SQLiteDatabase.h sql/SQLiteTable.h sdtks/sdtks.h
    platform/sdbus/sdbus.h platform/sdsecurity/sdsecurity.h platform/velmarlog/velmarlog.h)
foreach(header ${headers})
    cmake_path(GET header PARENT_PATH folder)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sdconfig/${folder} COMPONENT development)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/sdconfig)
install(EXPORT sdconfig-targets NAMESPACE sdconfig:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(packaging/sdconfig-config.cmake.in ${PROJECT_BINARY_DIR}/sdconfig-config.cmake
    INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sdconfig-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sdconfig-config.cmake ${PROJECT_BINARY_DIR}/sdconfig-config-version.cmake
    packaging/sdconfig-keys.cmake
    DESTINATION ${package_dir} COMPONENT development)

# The prefix is written when it is installed: "cmake --install --prefix" may tell another one. A tree that was moved since
# is found with "pkg-config --define-prefix".
set(installed_prefix @prefix@)
configure_file(packaging/sdconfig.pc.in ${PROJECT_BINARY_DIR}/sdconfig.pc.in @ONLY)
install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
    configure_file(\"${PROJECT_BINARY_DIR}/sdconfig.pc.in\" \"${PROJECT_BINARY_DIR}/sdconfig.pc\" @ONLY)"
    COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/sdconfig.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
