# The kinds of targets that the rooms are made of.

# kest_library(NAME SOURCES file... [USES library...])
# A static library: a room, or a part of one, that the DLLs, the tool and the tests share.
function(kest_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC kest_flags ${ARG_USES})
endfunction()

# kest_test(NAME SOURCES file... [USES library...] [PROPERTIES ctest-property value...])
# A GoogleTest program; every test of it is a ctest test, run under Wine.
function(kest_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES;PROPERTIES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE kest_flags ${ARG_USES} GTest::gmock_main)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 120 ${ARG_PROPERTIES})
endfunction()

# kest_shipped(NAME): NAME is part of a release. Its link map lists the libraries that are linked into
# it; the target `shipped` builds all that is part of a release. Its resources have the version, and
# CMake does not find out what a resource script includes.
function(kest_shipped name)
    get_target_property(resources ${name} SOURCES)
    list(FILTER resources INCLUDE REGEX "\\.rc$")
    set_property(SOURCE ${resources} APPEND PROPERTY OBJECT_DEPENDS
        ${PROJECT_BINARY_DIR}/generated/Version.h ${PROJECT_SOURCE_DIR}/resources/VersionInfo.inc)
    target_link_options(${name} PRIVATE -Wl,-Map=${PROJECT_BINARY_DIR}/${name}.map)
    add_dependencies(shipped ${name})
endfunction()
