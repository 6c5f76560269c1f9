# The kinds of targets that the rooms are made of.

# kest_library(NAME SOURCES file... [USES library...])
# A static library: a room, or a part of one, that the DLLs, the tool and the tests share.
function(kest_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC kest_flags ${ARG_USES})
endfunction()

# kest_test(NAME [EACH] SOURCES file... [USES library...] [PROPERTIES ctest-property value...])
# A GoogleTest program, run under Wine on a machine of its own; with EACH, every test of it in a
# process of its own.
function(kest_test name)
    cmake_parse_arguments(ARG "EACH" "" "SOURCES;USES;PROPERTIES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE kest_flags ${ARG_USES} GTest::gmock_main)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
    if(ARG_EACH)
        add_test(NAME ${name} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --each $<TARGET_FILE:${name}>)
    else()
        add_test(NAME ${name} COMMAND ${name})
    endif()
    set_tests_properties(${name} PROPERTIES TIMEOUT 900 ${ARG_PROPERTIES})
endfunction()
