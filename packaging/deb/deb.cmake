# The Debian package: `cpack` in the build folder, which first builds what is missing of it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zemhttpd)
if(NOT CPACK_PACKAGE_CONTACT)  # who builds it for others names himself
    set(CPACK_PACKAGE_CONTACT "The zemhttpd authors <zemhttpd@localhost.invalid>")
endif()
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Whatever was built before: ./run builds the programs only, and a package of half of it is none.
add_custom_target(packaged)
add_dependencies(packaged zemhttpd ${modules} zemhost zem zemfsck documents)
if(TARGET zem_manual)
    add_dependencies(packaged zem_manual)
endif()
set(CPACK_INSTALL_COMMANDS "${CMAKE_COMMAND} --build ${CMAKE_BINARY_DIR} --target packaged")
set(CPACK_INSTALL_CMAKE_PROJECTS
    ${CMAKE_BINARY_DIR} ${PROJECT_NAME} ALL / ${CMAKE_BINARY_DIR} ${PROJECT_NAME} system /)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/compress.cmake)
set(CPACK_ZEMHTTPD_CHANGELOG ${CMAKE_CURRENT_LIST_DIR}/changelog)
set(CPACK_ZEMHTTPD_OVERRIDES ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "broadcast video server's media over HTTP, frame by frame")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Clients join under an ID and, with one HTTP POST per command, open and create
media files, read and write frames by position, query and maintain files and
push channel configuration. Plain GET and DELETE serve whole files.

This package holds the library and its default media modules, the service
zemhost, the command-line client zem, zemfsck, which checks media files, and
what a host program of one's own needs to link the library.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS logrotate)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Who links the library depends on this package; the linker's cache learns of it.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/shlibs "libzemhttpd ${PROJECT_VERSION_MAJOR} zemhttpd (>= ${PROJECT_VERSION})\n")
file(WRITE ${CMAKE_BINARY_DIR}/packaging/triggers "activate-noawait ldconfig\n")
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/logrotate.d/zemhttpd\n/etc/zemhttpd/zemhttpd.reg\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/conffiles ${CMAKE_BINARY_DIR}/packaging/shlibs
    ${CMAKE_BINARY_DIR}/packaging/triggers ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)
include(CPack)
