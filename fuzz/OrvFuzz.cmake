# Injected by scripts/fuzz through CMAKE_PROJECT_INCLUDE: adds the libFuzzer targets once the
# whole tree, and so orv_app, has been configured.
function(orv_add_fuzzers)
    if(NOT TARGET orv_app)
        message(FATAL_ERROR "orv_app is missing: nothing to fuzz")
    endif()
    add_executable(orv_consume_fuzzer ${CMAKE_SOURCE_DIR}/fuzz/consume_fuzzer.cpp)
    target_include_directories(orv_consume_fuzzer PRIVATE ${CMAKE_SOURCE_DIR})
    target_link_libraries(orv_consume_fuzzer PRIVATE orv_app)
    target_link_options(orv_consume_fuzzer PRIVATE -fsanitize=fuzzer)
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL orv_add_fuzzers)
