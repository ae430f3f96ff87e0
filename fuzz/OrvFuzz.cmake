# Injected by scripts/fuzz through CMAKE_PROJECT_INCLUDE: adds the libFuzzer targets once the
# whole tree, and so orv_app and the codec, have been configured.
function(orv_add_fuzzer name)
    add_executable(${name} ${CMAKE_SOURCE_DIR}/fuzz/${name}.cpp)
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE ${ARGN})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()

function(orv_add_fuzzers)
    if(NOT TARGET orv_app OR NOT TARGET orv_policycodec)
        message(FATAL_ERROR "orv_app or orv_policycodec is missing: nothing to fuzz")
    endif()
    orv_add_fuzzer(consume_fuzzer orv_app)
    orv_add_fuzzer(policy_fuzzer orv_policy)
    orv_add_fuzzer(decoder_fuzzer orv_policycodec orv_crypto)
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL orv_add_fuzzers)
