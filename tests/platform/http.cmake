# The HTTP interface and the completion port. The parts that are not exported are compiled into their test.
zem_test(platform_http_parts LABEL unit
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/http_body_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_parser_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_url_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/port_lanes_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/http_body.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/http_names.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/http_parser.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/http_url.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/port_lanes.cpp
        ${CMAKE_CURRENT_LIST_DIR}/../../platform/posix/processors.cpp)
zem_test(platform_http LABEL platform
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/http_cooked_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_conformance_connection.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_conformance_fields.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_conformance_framing.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_conformance_requestline.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_conformance_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_late_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_listen_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_longbody_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_parked_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_uploads_stress_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_load_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_memory_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_port_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_receive_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_send_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_shutdown_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_stall_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_support.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_timeout_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/http_view_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/sysloglines.cpp
    LIBS zem_platform zem_alloc_fault)
