# orv_stage_include(DIR <folder>): an include directory in the build tree that holds nothing but a
# link to <folder> of the source tree, so "<folder>/X.h" is found through it and nothing else is.
# Sets ORV_STAGED to the directory.
function(orv_stage_include dir folder)
    set(stage ${CMAKE_BINARY_DIR}/layers/${dir})
    get_filename_component(parent ${stage}/${folder} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    file(REMOVE ${stage}/${folder})
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${folder} ${stage}/${folder} SYMBOLIC)
    set(ORV_STAGED ${stage} PARENT_SCOPE)
endfunction()

# orv_library(NAME GLOBS <patterns...> [LAYER <folder>] [EXCLUDE <regex...>] [DEPS <targets...>])
# A static library made of whatever sources match; a library with no sources yet is skipped.
# A LAYER library sees only its own folder and what its DEPS export, so an include of a layer
# above it (one it does not link) fails to compile; any other library sees the whole tree.
function(orv_library name)
    cmake_parse_arguments(A "" "LAYER" "GLOBS;EXCLUDE;DEPS" ${ARGN})
    file(GLOB srcs CONFIGURE_DEPENDS ${A_GLOBS})
    foreach(rx IN LISTS A_EXCLUDE)
        list(FILTER srcs EXCLUDE REGEX "${rx}")
    endforeach()
    if(NOT srcs)
        message(STATUS "${name}: no sources")
        return()
    endif()
    add_library(${name} STATIC ${srcs})
    if(A_LAYER)
        orv_stage_include(${A_LAYER} ${A_LAYER})
        target_include_directories(${name} PUBLIC ${ORV_STAGED})
    else()
        target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
    endif()
    target_link_libraries(${name} PUBLIC ${A_DEPS})
endfunction()

# orv_test(NAME GLOBS <patterns...> DEPS <targets...>): one gtest binary, each case its own ctest test
# so that process-wide singletons start fresh.
function(orv_test name)
    cmake_parse_arguments(A "" "" "GLOBS;DEPS" ${ARGN})
    file(GLOB srcs CONFIGURE_DEPENDS ${A_GLOBS})
    if(NOT srcs)
        return()
    endif()
    add_executable(${name} ${srcs})
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE ${A_DEPS} GTest::gtest GTest::gtest_main GTest::gmock)
    target_compile_definitions(${name} PRIVATE ORV_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
                               ORV_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
