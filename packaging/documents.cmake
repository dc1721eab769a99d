# zem_documents(DESTINATION dir [BESIDE path...] [ELSEWHERE path=installed...]): installs README and all pages, with links that
# lead to what is installed (documents.py). BESIDE: what else lies in DESTINATION as it does in the tree; ELSEWHERE: what is
# installed in other places, as seen from DESTINATION.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
function(zem_documents)
    cmake_parse_arguments(arg "" "DESTINATION" "BESIDE;ELSEWHERE" ${ARGN})
    set(made ${CMAKE_BINARY_DIR}/packaging/documents)
    file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/*.md ${CMAKE_SOURCE_DIR}/docs/*)
    add_custom_command(OUTPUT ${made}/README.md
        COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_SOURCE_DIR}/packaging/documents.py ${CMAKE_SOURCE_DIR} ${made}
                --beside ${arg_BESIDE} --elsewhere ${arg_ELSEWHERE}
        DEPENDS ${pages} ${CMAKE_SOURCE_DIR}/packaging/documents.py
        COMMENT "Making the documents as they are installed" VERBATIM)
    add_custom_target(documents ALL DEPENDS ${made}/README.md)
    install(DIRECTORY ${made}/ DESTINATION ${arg_DESTINATION})
endfunction()
