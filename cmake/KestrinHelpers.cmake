# Project-wide helpers: warnings, sanitizers, tests and fuzz targets.

function(kestrin_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
endfunction()

macro(kestrin_apply_sanitizers)
    if(KESTRIN_BUILD_FUZZ)
        if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
            message(FATAL_ERROR "Fuzz targets need clang: -DCMAKE_CXX_COMPILER=clang++")
        endif()
        # Everything the targets link is instrumented for coverage and checked.
        set(KESTRIN_SANITIZE "address,undefined")
        add_compile_options(-fsanitize=fuzzer-no-link)
    endif()
    if(KESTRIN_SANITIZE)
        add_compile_options(-fsanitize=${KESTRIN_SANITIZE} -fno-omit-frame-pointer
                            -fno-sanitize-recover=all)
        add_link_options(-fsanitize=${KESTRIN_SANITIZE})
        if(KESTRIN_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # Asio's fences are not modelled by ThreadSanitizer; gcc says so at every use.
            add_compile_options(-Wno-tsan)
        endif()
    endif()
endmacro()

# kestrin_add_test(NAME name SOURCES ... LIBS ... LABELS ...)
# A test labelled "concurrency" is also built by the target concurrency_tests, so that a
# ThreadSanitizer build can make just those.
function(kestrin_add_test)
    cmake_parse_arguments(T "" "NAME" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${T_NAME} ${T_SOURCES})
    kestrin_warnings(${T_NAME})
    target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main
                          Threads::Threads)
    if(NOT T_LABELS)
        set(T_LABELS unit)
    endif()
    gtest_discover_tests(${T_NAME} PROPERTIES LABELS "${T_LABELS}" DISCOVERY_TIMEOUT 60)
    if("concurrency" IN_LIST T_LABELS)
        if(NOT TARGET concurrency_tests)
            add_custom_target(concurrency_tests)
        endif()
        add_dependencies(concurrency_tests ${T_NAME})
    endif()
endfunction()

# kestrin_add_fuzzer(NAME name SOURCES ... LIBS ...)
# Each fuzz target is also built by the target fuzz_targets, which builds nothing else.
function(kestrin_add_fuzzer)
    cmake_parse_arguments(F "" "NAME" "SOURCES;LIBS" ${ARGN})
    add_executable(${F_NAME} ${F_SOURCES})
    target_compile_options(${F_NAME} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${F_NAME} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
    if(NOT TARGET fuzz_targets)
        add_custom_target(fuzz_targets)
    endif()
    add_dependencies(fuzz_targets ${F_NAME})
endfunction()
