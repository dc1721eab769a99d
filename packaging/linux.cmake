# What `cmake --install` lays where, and the Debian package (`cpack` in the build folder). The library lies where the
# linker looks; the modules that it loads lie in a folder of their own beside it, so that a host's own modules of the same
# names, found through LD_LIBRARY_PATH or linked by the host, come first.
set(module_dir ${CMAKE_INSTALL_LIBDIR}/zemhttpd)

set(modules zem_platform ErrorLog zemMemAllocator zembaseio zemchannelio)
install(TARGETS zemhttpd EXPORT zemhttpdTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zemhttpd)
install(TARGETS ${modules} EXPORT zemhttpdTargets
    LIBRARY DESTINATION ${module_dir}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zemhttpd)
if(TARGET zemforeign)  # loaded at its first use, from beside zembaseio
    install(TARGETS zemforeign LIBRARY DESTINATION ${module_dir})
    list(APPEND modules zemforeign)
endif()
install(TARGETS zemhost RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zem zemfsck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
set_target_properties(zemhttpd PROPERTIES INSTALL_RPATH "$ORIGIN/zemhttpd")
set_target_properties(${modules} PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(zemhost zemfsck PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};$ORIGIN/../${module_dir}")
set_target_properties(zem_platform PROPERTIES EXPORT_NAME platform)

# For host programs and media modules: the headers, CMake's package and pkg-config's.
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/zemhttpd)
set(headers
    zemhttpd/entry/zemhttpd.h zemhttpd/entry/entrypoint.h
    mediaio/errorlog.h mediaio/errorlog/sink.h
    mediaio/zemio.h mediaio/zemchannelio.h mediaio/zemiotypes.h mediaio/zemmemallocator.h
    platform/platform.h platform/windowsnames.h)
foreach(header com errors eventlog files http http_calls port registry sync text time types xmldom)
    list(APPEND headers platform/posix/${header}.h)
endforeach()
foreach(header ${headers})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${include_dir}/${folder})
endforeach()
include(CMakePackageConfigHelpers)
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zemhttpd)
configure_package_config_file(packaging/zemhttpdConfig.cmake.in ${CMAKE_BINARY_DIR}/packaging/zemhttpdConfig.cmake
    INSTALL_DESTINATION ${cmake_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/zemhttpdConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/zemhttpdConfig.cmake ${CMAKE_BINARY_DIR}/packaging/zemhttpdConfigVersion.cmake
    DESTINATION ${cmake_dir})
install(EXPORT zemhttpdTargets NAMESPACE zemhttpd:: DESTINATION ${cmake_dir})
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)  # wherever it is installed
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
configure_file(packaging/zemhttpd.pc.in ${CMAKE_BINARY_DIR}/packaging/zemhttpd.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/zemhttpd.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES packaging/zemhost.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/zemfsck.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/deb/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES clients/python/zemclient.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/clients/python)
install(FILES examples/host.cpp examples/CMakeLists.txt DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
include(packaging/documents.cmake)
file(RELATIVE_PATH include_from_doc ${CMAKE_INSTALL_FULL_DOCDIR} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/zemhttpd)
file(RELATIVE_PATH data_from_doc ${CMAKE_INSTALL_FULL_DOCDIR} ${CMAKE_INSTALL_FULL_DATADIR}/zemhttpd)
set(elsewhere LICENSE=copyright apps/console/console.html=${data_from_doc}/console.html mediaio=${include_from_doc}/mediaio)
foreach(header ${headers})
    list(APPEND elsewhere ${header}=${include_from_doc}/${header})
endforeach()
zem_documents(DESTINATION ${CMAKE_INSTALL_DOCDIR}
    BESIDE clients/python/zemclient.py examples/host.cpp
    ELSEWHERE ${elsewhere})

# What belongs to the machine and not below a prefix: only in the package, or with --component system.
install(FILES packaging/zemhttpd.reg DESTINATION /etc/zemhttpd COMPONENT system EXCLUDE_FROM_ALL)
install(FILES packaging/zemhttpd.logrotate RENAME zemhttpd DESTINATION /etc/logrotate.d
    COMPONENT system EXCLUDE_FROM_ALL)
install(FILES packaging/zemhttpd.service DESTINATION /lib/systemd/system COMPONENT system EXCLUDE_FROM_ALL)

include(packaging/deb/deb.cmake)
