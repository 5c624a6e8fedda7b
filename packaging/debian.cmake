# Debian packages, made by "cpack -G DEB" in a build directory: ternmail with program and filter, libternbase0 with the kernel library,
# ternmail-dev with what hosts are built with.
set(CPACK_PACKAGE_NAME ternmail)
set(CPACK_PACKAGE_VENDOR "The ternmail developers")
set(CPACK_PACKAGE_CONTACT "The ternmail developers <ternmail@ternmail.invalid>" CACHE STRING "Maintainer of the Debian packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL program library development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME ternmail)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION mail)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "show, print and export mail stores, items and messages
ternview shows what a person sees when printing a message of a Personal
Folders store (.pst), an Outlook item (.msg) or an Internet message (.eml):
as pages in PNG or PDF, or as the document of the message.
.
Nothing is ever fetched, and a stranger's mail is read in a process of its
own with limits on time and memory.")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "libternbase0 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_RECOMMENDS
    "libreoffice-writer-nogui | libreoffice-writer, fonts-dejavu-core, fonts-liberation | fonts-noto-core")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS "chromium-headless-shell | chromium, fonts-noto-cjk, fonts-noto-color-emoji")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libternbase0)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
file(CONFIGURE OUTPUT shlibs CONTENT "libternbase @PROJECT_VERSION_MAJOR@ libternbase0 (= @PROJECT_VERSION@)\n" @ONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/triggers ${CMAKE_CURRENT_BINARY_DIR}/shlibs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "kernel library of the mail filter ternmail
Files, memory, code pages, fonts and temporary files for the mail filter
ternmail, and for the hosts that open it.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ternmail-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libternbase0 (= ${PROJECT_VERSION}), ternmail (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "what hosts of the mail filter ternmail are built with
Headers, the link to the kernel library, and descriptions for CMake and
pkg-config, for programs that open the mail filter ternmail at run time.")

# Debian wants these of every package; an ordinary installation goes without.
foreach(package program/ternmail library/libternbase0 development/ternmail-dev)
    get_filename_component(component ${package} DIRECTORY)
    get_filename_component(name ${package} NAME)
    install(FILES copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/host
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/ternmail-dev/examples COMPONENT development EXCLUDE_FROM_ALL)
add_custom_command(OUTPUT changelog.gz
    COMMAND ${GZIP_PROGRAM} -9nc ${CMAKE_CURRENT_SOURCE_DIR}/changelog > changelog.gz DEPENDS changelog VERBATIM)
add_custom_target(ternmail_changelog ALL DEPENDS changelog.gz)

include(CPack)
