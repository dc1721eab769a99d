# zem_server_test(NAME LABEL label SOURCES... [LIBS...] [WRAP...] [TIMEOUT seconds]): a test of the library's own objects
# with stand-ins for the media modules, the error log and the HTTP calls. Include this file, then call it.
include_guard(DIRECTORY)
function(zem_server_test name)
    cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBS;WRAP" ${ARGN})
    zem_test(${name} LABEL ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT}
        SOURCES ${ARG_SOURCES}
        LIBS zemhttpd_objects zem_server_fixture zem_fake_media zem_fake_errorlog ${ARG_LIBS}
        WRAP HttpSendHttpResponse HttpReceiveRequestEntityBody GetTickCount time ${ARG_WRAP})
endfunction()
set(zem_fake_system_wraps HttpInitialize HttpTerminate HttpCreateHttpHandle HttpAddUrl HttpRemoveUrl
    HttpReceiveHttpRequest CreateIoCompletionPort GetQueuedCompletionStatus
    PostQueuedCompletionStatus CloseHandle _beginthreadex CoInitializeEx)
