# cpack -G DEB: one package a component. scripts/package drives it.
set(debian_revision 1)
set(packages libraries development programs python)
if(TARGET sdconfig_keyring)
    list(APPEND packages keyring)
endif()
set(package_of_libraries libsdconfig${PROJECT_VERSION_MAJOR})
set(package_of_development libsdconfig-dev)
set(package_of_programs sdconfig)
set(package_of_keyring sdconfig-keyring)
set(package_of_python python3-sdconfig)

# What every package has in its folder of documents, and an installation by cmake has not.
find_program(GZIP gzip REQUIRED)
function(compressed input output)
    add_custom_command(OUTPUT ${output} COMMAND ${GZIP} -9nc ${input} > ${output} DEPENDS ${input} VERBATIM)
endfunction()
string(TIMESTAMP debian_date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # that of SOURCE_DATE_EPOCH, where it is set
configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/changelog.Debian @ONLY)
compressed(${PROJECT_BINARY_DIR}/changelog.Debian ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_BINARY_DIR}/changelog.gz)
add_custom_target(package_documents ALL
    DEPENDS ${PROJECT_BINARY_DIR}/changelog.Debian.gz ${PROJECT_BINARY_DIR}/changelog.gz)
foreach(component ${packages})
    install(FILES packaging/debian/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
        ${PROJECT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_${component}} COMPONENT ${component}
        EXCLUDE_FROM_ALL)
endforeach()
# Messages, headers and manuals name these pages. What they link to in the tree alone is named there and not linked.
set(installed_docs ${PROJECT_BINARY_DIR}/docs)
file(GLOB pages RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS docs/*.md)
add_custom_target(installed_docs ALL
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${installed_docs}
    COMMAND ${CMAKE_COMMAND} -E copy_directory ${PROJECT_SOURCE_DIR}/docs ${installed_docs}
    COMMAND sed -E -i -f ${PROJECT_SOURCE_DIR}/packaging/installed-links.sed ${pages} VERBATIM)
install(DIRECTORY ${installed_docs}/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_programs}
    COMPONENT programs EXCLUDE_FROM_ALL)
# Where a file governs every user's service, and where one describes keys: the vendor's packages put theirs into the
# first of each, administrators into the other.
foreach(folder lib/sdconfig/policies.d /etc/sdconfig/policies.d ${CMAKE_INSTALL_DATADIR}/sdconfig/keys.d
        /etc/sdconfig/keys.d)
    install(DIRECTORY DESTINATION ${folder} COMPONENT programs EXCLUDE_FROM_ALL)
endforeach()
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_development} COMPONENT development
    EXCLUDE_FROM_ALL)
install(FILES packaging/debian/libsdconfig.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
    RENAME ${package_of_libraries} COMPONENT libraries EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_CONTACT "sdconfig maintainers <maintainers@sdconfig.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${debian_revision})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has one of its own
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(exactly_libraries "${package_of_libraries} (= ${PROJECT_VERSION}-${debian_revision})")

# Names are asked of the libraries of the same build, which no package on the building machine has.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/libsdconfig ${PROJECT_BINARY_DIR}/platform/sdbus ${PROJECT_BINARY_DIR}/platform/sdsecurity
    ${PROJECT_BINARY_DIR}/platform/velmarlog)

set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION "configuration library of a desktop client
Settings, sealed values and policies, read and written through one service
process of the user. This package holds the shared libraries.")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME ${package_of_libraries})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SHLIBDEPS ON)
# What is loaded when it is first needed is in no list that dpkg-shlibdeps reads; it would say this of the names used.
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_DEPENDS "libsqlite3-0 (>= 3.5.9), libssl3 (>= 3.0.0), libzstd1 (>= 1.4.0)")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "configuration library of a desktop client (development)
Settings, sealed values and policies, read and written through one service
process of the user. This package holds the headers, a CMake package, a
pkg-config file, and the program that writes a header of described keys.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_of_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${exactly_libraries})

set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION "configuration service and command line of a desktop client
Settings, sealed values and policies, read and written through one service
process of the user. This package holds the service, which systemd starts at
its first call, and the command line.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME ${package_of_programs})
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS ${exactly_libraries})
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_RECOMMENDS "systemd, libpam-systemd")
# The libtss2 ones are what systemd-creds loads where there is a TPM.
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SUGGESTS
    "${package_of_keyring}, libtss2-esys-3.0.2-0, libtss2-mu0, libtss2-rc0, libtss2-tcti-device0")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
    ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)

set(CPACK_COMPONENT_KEYRING_DESCRIPTION "configuration service of a desktop client (login keyring)
Settings, sealed values and policies, read and written through one service
process of the user. With this package the service can have the login keyring
of the desktop open its own key ring. It stands apart for the libraries that
it draws.")
set(CPACK_DEBIAN_KEYRING_PACKAGE_NAME ${package_of_keyring})
set(CPACK_DEBIAN_KEYRING_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_KEYRING_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_KEYRING_PACKAGE_DEPENDS "${package_of_programs} (= ${PROJECT_VERSION}-${debian_revision})")
set(CPACK_DEBIAN_KEYRING_PACKAGE_SUGGESTS gnome-keyring)

set(CPACK_COMPONENT_PYTHON_DESCRIPTION "configuration library of a desktop client (Python 3)
Settings, sealed values and policies, read and written through one service
process of the user. This package holds the module for Python; it speaks to
the service by itself and needs none of the libraries.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${package_of_python})
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.10)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS ${package_of_programs})
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/python3-sdconfig/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/python3-sdconfig/prerm)
include(CPack)
