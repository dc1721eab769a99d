# One way to declare a target of each kind, so that warnings, sanitizers and labels are the same everywhere.

add_library(zem_options INTERFACE)
target_compile_options(zem_options INTERFACE
    -Wall -Wextra -Wconversion -Wshadow -Wnon-virtual-dtor -Wno-unknown-pragmas)
target_include_directories(zem_options INTERFACE ${CMAKE_SOURCE_DIR})
if(WIN32)  # whatever a source includes before platform.h
    target_compile_definitions(zem_options INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX)
endif()
if(ZEM_SANITIZE)
    target_compile_options(zem_options INTERFACE
        -fsanitize=${ZEM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zem_options INTERFACE -fsanitize=${ZEM_SANITIZE})
endif()
if(ZEM_FUZZ)  # libFuzzer sees which code an input reaches
    target_compile_options(zem_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# What makes an error in a program hard to use against it: canaries and checked copies, a stack that cannot be stepped
# over, marked targets of jumps, and tables of addresses that are read-only once the program runs. Programs are placed at
# random; libraries are anyway.
if(ZEM_HARDEN)
    target_compile_options(zem_options INTERFACE
        -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
        target_compile_options(zem_options INTERFACE -fcf-protection=full)
    endif()
    target_link_options(zem_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack
        $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
endif()

# Tests are compiled often and run for seconds: -Og takes two thirds of the compiler's time. What they test is optimised as ever.
add_library(zem_test_options INTERFACE)
target_link_libraries(zem_test_options INTERFACE zem_options)
if(NOT WIN32 AND (ZEM_SANITIZE OR NOT CMAKE_BUILD_TYPE STREQUAL Debug))
    target_compile_options(zem_test_options INTERFACE -Og)
endif()

# Sources that only one system has end in _posix.cpp or _windows.cpp: ${ZEM_SYSTEM} is the one that is built for. The
# rest of the tree does not ask.
if(WIN32)
    set(ZEM_SYSTEM windows)
else()
    set(ZEM_SYSTEM posix)
endif()

# zem_never_unload(TARGET): threads of the module may still run when its last user is gone.
function(zem_never_unload name)
    if(WIN32)
        target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/platform/windows/keeploaded.cpp)
    else()
        target_link_options(${name} PRIVATE -Wl,-z,nodelete)
    endif()
endfunction()

# zem_version_resource(NAME): what the file's properties show on Windows.
function(zem_version_resource name)
    if(NOT WIN32)
        return()
    endif()
    get_target_property(type ${name} TYPE)
    if(type STREQUAL EXECUTABLE)
        set(zem_file_type VFT_APP)
        set(zem_file_name ${name}.exe)
    else()
        set(zem_file_type VFT_DLL)
        set(zem_file_name ${name}.dll)
    endif()
    configure_file(${CMAKE_SOURCE_DIR}/platform/windows/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc @ONLY)
    target_sources(${name} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc)
endfunction()

# zem_library(NAME SHARED|STATIC|OBJECT SOURCES... [LIBS...]): a library of ours.
function(zem_library name kind)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} ${kind} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE zem_options PUBLIC ${ARG_LIBS})
    if(kind STREQUAL SHARED)
        zem_version_resource(${name})
    endif()
endfunction()

# zem_optimise_whole(TARGET [OBJECTS]): what a request passes through is optimised as one piece when the library is linked
# (a sixteenth of a small request's processor time). OBJECTS: the target that has its objects; whoever else links these
# finds ordinary code in them.
function(zem_optimise_whole name)
    if(NOT ZEM_WHOLE)
        return()
    endif()
    foreach(target ${name} ${ARGN})
        target_compile_options(${target} PRIVATE -flto=auto -ffat-lto-objects)
    endforeach()
    target_link_options(${name} PRIVATE -flto=auto)
endfunction()

# zem_program(NAME SOURCES... [LIBS...]): a program in build/<preset>/bin.
function(zem_program name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE zem_options ${ARG_LIBS})
    zem_version_resource(${name})
endfunction()

# zem_test(NAME LABEL label SOURCES... [LIBS...] [WRAP function...] [TIMEOUT seconds]): a GoogleTest program,
# run by CTest as one test per case (label: unit, platform, protocol, e2e, fault or slow).
# WRAP names platform calls that the test replaces: it defines __wrap_X and reaches the real one as __real_X.
# Only references from objects linked into the test itself are replaced.
function(zem_test name)
    cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBS;WRAP" ${ARGN})
    # Only what hangs is to meet it: a busy machine, and a sanitizer on it, takes its time.
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    if(ZEM_SANITIZE)
        math(EXPR ARG_TIMEOUT "3 * ${ARG_TIMEOUT}")
    endif()
    if(NOT TARGET GTest::gtest)  # Windows: built with the tests
        find_package(GTest REQUIRED)
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE zem_test_options ${ARG_LIBS} GTest::gmock GTest::gtest GTest::gtest_main)
    if(TARGET zem_test_headers)
        target_precompile_headers(${name} REUSE_FROM zem_test_headers)
    endif()
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    foreach(call IN LISTS ARG_WRAP)
        target_link_options(${name} PRIVATE -Wl,--wrap=${call})
    endforeach()
    include(GoogleTest)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
        PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT})
endfunction()
