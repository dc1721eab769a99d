# The zip for Windows: cmake --build --preset windows --target package.
install(TARGETS zemhttpd zembaseio zemchannelio zemMemAllocator ErrorLog zemhost zemfsck RUNTIME DESTINATION .)

# The settings file with a volume root that Windows has, and without what holds for every service of the machine.
file(READ packaging/zemhttpd.reg settings)
macro(change_setting there here)
    string(FIND "${settings}" "${there}" place)
    if(place EQUAL -1)
        message(FATAL_ERROR "packaging/zemhttpd.reg has no ${there}")
    endif()
    string(REPLACE "${there}" "${here}" settings "${settings}")
endmacro()
change_setting("; Every setting of the server, in the registry editor's export format: the same file can be imported on Windows.
; zemhost reads it with --registry FILE; its options --port, --listen and --volume come before what stands here.
; A changed file is seen the next time the server looks at a setting; what is read at start needs a restart."
"; Every setting of the server. Look through it before you import it: reg import zemhttpd.reg. See docs/windows.md.
; What is read at start needs a restart of the service.")
change_setting("\"0\"=\"/var/lib/zemhttpd/volume\"" [["0"="D:\\\\media"]])
change_setting("\"ListenOnlyList\"=" "; Of every service that uses the system's HTTP interface, so only if that is wanted:\n; \"ListenOnlyList\"=")
string(REPLACE "\n" "\r\n" settings "${settings}")
file(WRITE ${CMAKE_BINARY_DIR}/zemhttpd.reg "${settings}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/zemhttpd.reg)
install(FILES ${CMAKE_BINARY_DIR}/zemhttpd.reg DESTINATION .)
install(FILES LICENSE DESTINATION .)
include(packaging/documents.cmake)
zem_documents(DESTINATION . BESIDE LICENSE)

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME zemhttpd-${PROJECT_VERSION}-win64)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})
include(CPack)
