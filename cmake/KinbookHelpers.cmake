# Shared build settings and the wrapper functions every target goes through,
# so that warnings, sanitizers and include paths are the same everywhere.

add_library(kinbook_options INTERFACE)
target_compile_options(kinbook_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
    # Designated initialisers that name only some members are the point of them.
    -Wno-missing-field-initializers)
if(KINBOOK_WERROR)
    target_compile_options(kinbook_options INTERFACE -Werror)
endif()
if(KINBOOK_SANITIZE)
    target_compile_options(kinbook_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(kinbook_options INTERFACE -fsanitize=address,undefined)
endif()
if(KINBOOK_TSAN)
    # Races between the list's serial queue, the loader's threads and the
    # executors; one sanitizer per build, as ThreadSanitizer cannot share a
    # process with AddressSanitizer.
    target_compile_options(kinbook_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(kinbook_options INTERFACE -fsanitize=thread)
endif()
if(KINBOOK_BUILD_FUZZERS)
    # The libraries carry the fuzzers' coverage and sanitizers, so that every
    # branch of a reader under test is steered by the corpus; the fuzzer's own
    # main is linked into the fuzz targets only (fuzz/CMakeLists.txt).
    target_compile_options(kinbook_options INTERFACE
        -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(kinbook_options INTERFACE -fsanitize=address,undefined)
endif()
target_include_directories(kinbook_options INTERFACE
    "${PROJECT_SOURCE_DIR}"
    "${PROJECT_BINARY_DIR}/generated")

# kinbook_subsystem(NAME DIR [EXCLUDE regex] [DEPS ...])
# One static library per subsystem folder. Its sources are the folder's .cpp
# files; files matching EXCLUDE (implementations over heavy system packages)
# are left to a target of their own.
function(kinbook_subsystem name dir)
    cmake_parse_arguments(ARG "" "EXCLUDE" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp")
    if(ARG_EXCLUDE)
        list(FILTER sources EXCLUDE REGEX "${ARG_EXCLUDE}")
    endif()
    if(NOT sources)
        # A subsystem whose sources have not been written yet links as headers only.
        add_library(${name} INTERFACE)
        target_link_libraries(${name} INTERFACE kinbook_options ${ARG_DEPS})
        return()
    endif()
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC kinbook_options ${ARG_DEPS})
endfunction()

# kinbook_test(NAME DIR DEPS ...)
# One GoogleTest executable per subsystem, discovered by CTest.
function(kinbook_test name dir)
    cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp")
    if(NOT sources)
        return()
    endif()
    add_executable(${name} ${sources})
    target_link_libraries(${name} PRIVATE kinbook_options kinbook_test_support ${ARG_DEPS}
        GTest::gtest GTest::gmock GTest::gtest_main kinbook_heap)
    target_compile_definitions(${name} PRIVATE
        KINBOOK_TESTDATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
