# The kinds of targets that the rooms are made of.

# kest_library(NAME SOURCES file... [USES library...])
# A static library: a room, or a part of one, that the DLLs, the tool and the tests share.
function(kest_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC kest_flags ${ARG_USES})
endfunction()

# kest_test_program(TARGET SOURCES file... [USES library...])
# A GoogleTest program in build/tests/.
function(kest_test_program target)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE kest_flags ${ARG_USES} GTest::gmock_main)
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
endfunction()

# kest_test(NAME [WINE_ONLY] [EACH] [USES library...])
# The unit test FOLDER.NAME: the program of NAMETest.cpp, run under Wine on a machine of its own.
# With EACH, every test of it runs in a process of its own. Unless it is WINE_ONLY it can run on a
# real Windows, too.
function(kest_test name)
    cmake_parse_arguments(ARG "WINE_ONLY;EACH" "" "USES" ${ARGN})
    cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)
    set(test ${folder}.${name})
    kest_test_program(${test} SOURCES ${name}Test.cpp USES ${ARG_USES})
    if(ARG_EACH)
        add_test(NAME ${test}
            COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --each $<TARGET_FILE:${test}>)
    else()
        add_test(NAME ${test} COMMAND ${test})
    endif()
    set(labels unit)
    if(NOT ARG_WINE_ONLY)
        list(APPEND labels windows)
    endif()
    set_tests_properties(${test} PROPERTIES LABELS "${labels}" TIMEOUT 900)
endfunction()

# kest_script_test(NAME SCRIPT [SLOW] [ARGUMENTS argument...])
# The end-to-end test e2e.NAME: a script of this folder. A slow one starts early, and no other slow
# one runs beside it: their simulated printers need the processor.
function(kest_script_test name script)
    cmake_parse_arguments(ARG "SLOW" "" "ARGUMENTS" ${ARGN})
    add_test(NAME e2e.${name} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/${script} ${ARG_ARGUMENTS})
    set_tests_properties(e2e.${name} PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 1200)
    if(ARG_SLOW)
        set_tests_properties(e2e.${name} PROPERTIES LABELS "e2e;slow" COST 100
            RESOURCE_LOCK printers)
    endif()
endfunction()

# kest_shipped(NAME): NAME is part of a release. Its link map lists the libraries that are linked
# into it; the target `shipped` builds all that is part of a release. Its resources have the
# version, and CMake does not find out what a resource script includes.
function(kest_shipped name)
    get_target_property(resources ${name} SOURCES)
    list(FILTER resources INCLUDE REGEX "\\.rc$")
    set_property(SOURCE ${resources} APPEND PROPERTY OBJECT_DEPENDS
        ${PROJECT_BINARY_DIR}/generated/Version.h ${PROJECT_SOURCE_DIR}/resources/VersionInfo.inc)
    target_link_options(${name} PRIVATE -Wl,-Map=${PROJECT_BINARY_DIR}/${name}.map)
    add_dependencies(shipped ${name})
endfunction()
