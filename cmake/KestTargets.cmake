# The kinds of targets that the folders are made of.

# kest_headers(NAME [ONLY header...] [EXPOSES library...])
# The headers of this folder, or only those named, for the targets that link NAME. A target finds no
# headers but those of the libraries that it links: each NAME has a folder of its own in
# build/headers, with a link to this folder under its path in the project.
#   EXPOSES: the libraries whose headers these headers include.
function(kest_headers name)
    cmake_parse_arguments(ARG "" "" "ONLY;EXPOSES" ${ARGN})
    set(root ${PROJECT_BINARY_DIR}/headers/${name})
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    # A link of an earlier configuration: files must not be created behind it.
    file(REMOVE ${root}/${folder})
    if(ARG_ONLY)
        file(REMOVE_RECURSE ${root})
        file(MAKE_DIRECTORY ${root}/${folder})
        foreach(header ${ARG_ONLY})
            file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${root}/${folder}/${header}
                SYMBOLIC)
        endforeach()
    else()
        cmake_path(GET folder PARENT_PATH parent)
        file(MAKE_DIRECTORY ${root}/${parent})
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${folder} SYMBOLIC)
    endif()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${root})
    target_compile_options(${name} INTERFACE
        $<$<COMPILE_LANGUAGE:CXX>:-ffile-prefix-map=${root}/=>
        $<$<COMPILE_LANGUAGE:CXX>:-ffile-prefix-map=headers/${name}/=>)
    target_link_libraries(${name} INTERFACE ${ARG_EXPOSES})
endfunction()

# kest_library(NAME SOURCES file... [ONLY header...] [EXPOSES library...] [USES library...])
# A static library: a folder, or a part of one, that the DLLs, the programs and the tests share. Its
# headers alone are NAME_headers.
#   ONLY: the headers that users see; without it, all of the folder.
#   EXPOSES: the libraries whose headers its headers include; its users may include them, too.
#   USES: the other libraries that it links; its users do not see their headers.
function(kest_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;ONLY;EXPOSES;USES" ${ARGN})
    kest_headers(${name}_headers ONLY ${ARG_ONLY})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name}
        PUBLIC kest_flags ${name}_headers ${ARG_EXPOSES}
        PRIVATE ${ARG_USES})
endfunction()

# kest_test_program(TARGET SOURCES file... [USES library...])
# A GoogleTest program in build/tests/.
function(kest_test_program target)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE kest_flags kest_tests ${ARG_USES} GTest::gmock_main)
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
    target_link_libraries(${name} PRIVATE kest_resources)
    target_link_options(${name} PRIVATE -Wl,-Map=${PROJECT_BINARY_DIR}/${name}.map)
    add_dependencies(shipped ${name})
endfunction()
