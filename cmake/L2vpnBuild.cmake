# How everything here is compiled, and the two helpers that the directories use.

option(L2VPN_WERROR "Treat warnings as errors" OFF)
set(L2VPN_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them: address,undefined or thread")
option(L2VPN_COVERAGE "Count lines and branches, with clang" OFF)
set(L2VPN_PROGRAM_OPTIONS "" CACHE STRING "More compiler options for programs, not libraries: -g1 compiles sooner")
option(L2VPN_UNITY "Compile the sources of a part together, for checks of what nobody is given: large headers once" OFF)
option(L2VPN_TESTS_TOGETHER "Compile the sources of a test program together: all tests in half of the time, one of them in twice" OFF)
set(L2VPN_PROGRAMS "" CACHE PATH "Where another build's programs are, for tests to run instead of this build's")
set(L2VPN_DRIVERS "" CACHE PATH "Where another build's tests are that only run programs, to be used instead of this build's")

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

find_package(Threads REQUIRED)

add_library(l2vpn_build INTERFACE)
target_compile_options(l2vpn_build INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
target_compile_definitions(l2vpn_build INTERFACE _GNU_SOURCE)
if(L2VPN_WERROR)
    target_compile_options(l2vpn_build INTERFACE -Werror)
endif()
if(L2VPN_PROGRAM_OPTIONS)
    target_compile_options(l2vpn_build INTERFACE
        "$<$<AND:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>,$<NOT:$<BOOL:$<TARGET_PROPERTY:L2VPN_TEST>>>>:${L2VPN_PROGRAM_OPTIONS}>")
endif()
add_library(l2vpn_part_of_program INTERFACE) # a static library that only programs are made of
target_compile_options(l2vpn_part_of_program INTERFACE ${L2VPN_PROGRAM_OPTIONS})
# For all directories, not by l2vpn_build: of two options the last one counts, and what a target is compiled without
# (L2VPN_TEST_OPTIONS) stands behind these only.
if(L2VPN_SANITIZE)
    # Recovery is off: the first report ends the program, so that no test passes over one.
    add_compile_options(
        -fsanitize=${L2VPN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(l2vpn_build INTERFACE -fsanitize=${L2VPN_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # C programs load C++ libraries, which need the whole of it
        target_link_options(l2vpn_build INTERFACE -fsanitize-link-c++-runtime)
        target_link_libraries(l2vpn_build INTERFACE stdc++)
    endif()
endif()
if(L2VPN_COVERAGE)
    # What is not ours is not counted: that would take a third of the time.
    # The counters are in a shared mapping of the file, so that those of a program that is killed count too;
    # they are counted up atomically, or threads and processes that meet would make branches up that never ran.
    add_compile_options(
        -fprofile-instr-generate=${PROJECT_BINARY_DIR}/coverage/%m%c.profraw -fcoverage-mapping
        -fprofile-update=atomic "SHELL:-mllvm -runtime-counter-relocation"
        -fprofile-list=${CMAKE_CURRENT_LIST_DIR}/counted.txt)
    target_link_options(l2vpn_build INTERFACE -fprofile-instr-generate)
    # Or a program in which nothing is counted would keep that in a file of another name, wherever it runs.
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/counted.c CONTENT "int l2vpn_counted(void);\nint l2vpn_counted(void) { return 0; }\n")
    add_library(l2vpn_counted OBJECT ${PROJECT_BINARY_DIR}/counted.c)
    target_link_libraries(l2vpn_build INTERFACE
        "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:l2vpn_counted>>")
    set(L2VPN_UNCOUNTED -fno-profile-instr-generate -fno-coverage-mapping)
endif()
# Of tests' own code, not of what they test: checks at every access, which AddressSanitizer makes too, and which
# cost a third of the time that tests are compiled in.
set(L2VPN_TEST_OPTIONS ${L2VPN_UNCOUNTED})
if(L2VPN_SANITIZE MATCHES "undefined")
    list(APPEND L2VPN_TEST_OPTIONS -fno-sanitize=null,alignment,object-size,vptr,pointer-overflow)
endif()
if(L2VPN_TESTS_TOGETHER AND NOT L2VPN_SANITIZE) # an assertion tells its line; a report of a sanitizer needs more
    list(APPEND L2VPN_TEST_OPTIONS -g0)
endif()

# Probes for tracers, where the header that makes them is (Debian: systemtap-sdt-dev). Nothing is linked for them.
option(L2VPN_PROBES "Probes for bpftrace and other tracers, where <sys/sdt.h> is there" ON)
include(CheckIncludeFileCXX)
check_include_file_cxx(sys/sdt.h L2VPN_HAVE_SDT)
add_library(l2vpn_probes INTERFACE)
target_include_directories(l2vpn_probes INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../l2vpn/probes)
if(NOT L2VPN_PROBES)
    message(STATUS "Probes for tracers: none, as asked")
elseif(NOT L2VPN_HAVE_SDT)
    message(STATUS "Probes for tracers: none, <sys/sdt.h> is missing")
else()
    message(STATUS "Probes for tracers: made")
    target_compile_definitions(l2vpn_probes INTERFACE L2VPN_PROBES)
endif()

# l2vpn_probe_test(TARGET SOURCES...): adds tests of what probes tell, where there are probes and it is known how
# to stop at one. ThreadSanitizer defers the signal that a stop is.
function(l2vpn_probe_test target)
    if(L2VPN_PROBES AND L2VPN_HAVE_SDT AND CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64" AND NOT L2VPN_SANITIZE MATCHES "thread")
        target_sources(${target} PRIVATE ${ARGN})
        target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../tests/support)
    endif()
endfunction()

# l2vpn_version_script(TARGET FILE): exports what FILE lists and nothing else.
function(l2vpn_version_script target file)
    target_link_options(${target} PRIVATE LINKER:--version-script=${file} LINKER:--no-undefined-version)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${file})
endfunction()

# l2vpn_unity(TARGET [EXCEPT SOURCES...] [APART LISTS...]): the sources may be compiled together, but for some; those of
# a list with each other, for their names would meet those of the rest. Overloads of two files meet without a word, so
# what is installed is never built like this.
function(l2vpn_unity target)
    cmake_parse_arguments(ARG "" "" "EXCEPT;APART" ${ARGN})
    set_target_properties(${target} PROPERTIES UNITY_BUILD ${L2VPN_UNITY} UNITY_BUILD_MODE GROUP
                          DISABLE_PRECOMPILE_HEADERS ${L2VPN_UNITY}) # one source reads them once anyway
    if(L2VPN_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU") # it takes each file for a header
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wno-subobject-linkage>)
    endif()
    get_target_property(sources ${target} SOURCES)
    set_source_files_properties(${sources} PROPERTIES UNITY_GROUP rest)
    foreach(list IN LISTS ARG_APART)
        set_source_files_properties(${${list}} PROPERTIES UNITY_GROUP ${list})
    endforeach()
    if(ARG_EXCEPT)
        set_source_files_properties(${ARG_EXCEPT} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    endif()
endfunction()

# l2vpn_start_code(SOURCES...): what reads a command line, once: to optimise that takes longer than it ever saves.
function(l2vpn_start_code)
    if(NOT L2VPN_UNITY) # which would leave out what has options of its own
        set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O1)
    endif()
endfunction()

# l2vpn_tool_code(TARGET [HEADERS...]): how a tool is compiled: the large headers once, and where a sanitizer looks on
# without optimisation, for there a tool is compiled for longer than it runs. What fuzzes may run all day.
function(l2vpn_tool_code target)
    if(ARGN)
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
    if(L2VPN_SANITIZE AND NOT L2VPN_SANITIZE MATCHES "fuzzer")
        target_compile_options(${target} PRIVATE -O0)
    endif()
    if(L2VPN_PROGRAMS)
        set_target_properties(${target} PROPERTIES EXCLUDE_FROM_ALL ON)
    endif()
endfunction()

# l2vpn_test_code(TARGET): how code of tests is compiled. More often than it is run: no optimisation, and the
# large headers once for all of them.
function(l2vpn_test_code target)
    if(NOT TARGET l2vpn_test_headers)
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "int main() {}\n")
        add_executable(l2vpn_test_headers EXCLUDE_FROM_ALL ${PROJECT_BINARY_DIR}/test_headers.cpp)
        set_target_properties(l2vpn_test_headers PROPERTIES L2VPN_TEST ON)
        target_link_libraries(l2vpn_test_headers PRIVATE l2vpn_build GTest::gmock GTest::gtest)
        target_compile_options(l2vpn_test_headers PRIVATE -O0 ${L2VPN_TEST_OPTIONS})
        target_precompile_headers(l2vpn_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>
            ${PROJECT_SOURCE_DIR}/l2vpn/process/json.h)
    endif()
    target_compile_options(${target} PRIVATE -O0 -fPIE ${L2VPN_TEST_OPTIONS}) # -fPIE: libraries, too, share the headers
    target_precompile_headers(${target} REUSE_FROM l2vpn_test_headers)
    set_target_properties(${target} PROPERTIES L2VPN_TEST ON
                          UNITY_BUILD ${L2VPN_TESTS_TOGETHER} UNITY_BUILD_BATCH_SIZE 0)
    get_target_property(sources ${target} SOURCES)
    list(FILTER sources INCLUDE REGEX "/l2vpn/|[.]c$") # what is tested is compiled as it always is
    set_source_files_properties(${sources} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    if(L2VPN_TESTS_TOGETHER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU") # it takes each file for a header
        # It also spends a tenth of its time on getting memory back.
        target_compile_options(${target} PRIVATE -Wno-subobject-linkage --param=ggc-min-heapsize=1000000)
    endif()
endfunction()

# l2vpn_counted(TESTS...): these are counted and checked like what they test: its headers' code runs in them, too, or
# nothing of theirs would tell their counters from another's.
function(l2vpn_counted)
    foreach(test IN LISTS ARGN)
        get_target_property(options ${test} COMPILE_OPTIONS)
        list(REMOVE_ITEM options ${L2VPN_TEST_OPTIONS})
        set_target_properties(${test} PROPERTIES COMPILE_OPTIONS "${options}")
    endforeach()
endfunction()

# l2vpn_gtest(NAME SOURCES... [DEFINITIONS...] [INCLUDES...] [LIBS...] [RUNS PROGRAMS... [DRIVER]] [TIMEOUT SECONDS]
# [LABELS...] [COST N]): a GoogleTest program, each of its tests a test of CTest's. A driver does nothing but run the
# programs: any build's can drive those of any other.
function(l2vpn_gtest name)
    cmake_parse_arguments(ARG "DRIVER" "TIMEOUT;COST" "SOURCES;DEFINITIONS;INCLUDES;LIBS;RUNS;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set(properties TIMEOUT ${ARG_TIMEOUT})
    if(ARG_DRIVER AND L2VPN_DRIVERS)
        add_executable(${name} IMPORTED GLOBAL)
        set_target_properties(${name} PROPERTIES IMPORTED_LOCATION ${L2VPN_DRIVERS}/${name})
        list(APPEND properties ENVIRONMENT L2VPN_PROGRAMS=${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
    else()
        add_executable(${name} ${ARG_SOURCES})
        target_compile_definitions(${name} PRIVATE ${ARG_DEFINITIONS})
        target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
        target_link_libraries(${name} PRIVATE l2vpn_build ${ARG_LIBS} GTest::gmock GTest::gtest GTest::gtest_main)
        l2vpn_test_code(${name})
        if(L2VPN_PROGRAMS)
            list(APPEND properties ENVIRONMENT L2VPN_PROGRAMS=${L2VPN_PROGRAMS})
        elseif(ARG_RUNS)
            add_dependencies(${name} ${ARG_RUNS})
        endif()
    endif()
    if(ARG_LABELS)
        list(APPEND properties LABELS "${ARG_LABELS}")
    endif()
    if(ARG_COST) # the more, the sooner it is started
        list(APPEND properties COST ${ARG_COST})
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
                         PROPERTIES ${properties})
endfunction()
