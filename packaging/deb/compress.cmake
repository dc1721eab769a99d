# Runs on the files of the package before it is put together: manual pages and changelog are compressed, as everywhere in
# the distribution.
set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr)
configure_file(${CPACK_ZEMHTTPD_CHANGELOG} ${usr}/share/doc/zemhttpd/changelog.Debian COPYONLY)
configure_file(${CPACK_ZEMHTTPD_OVERRIDES} ${usr}/share/lintian/overrides/zemhttpd COPYONLY)
file(GLOB pages ${usr}/share/man/man[0-9]/*.[0-9] ${usr}/share/doc/zemhttpd/changelog.Debian)
execute_process(COMMAND gzip -9nf ${pages} COMMAND_ERROR_IS_FATAL ANY)
