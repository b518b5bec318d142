# What every target of ours has in common. Flags are private: nothing leaks into those who link us.

function(okv_compile_options target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
        -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wundef -Wformat=2 -Werror)
    # It takes whatever a unity file includes for a header.
    target_compile_options(${target} PRIVATE
        $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-subobject-linkage>)
    # Calls inside a library are its own, and those out of it are bound when it is loaded.
    target_compile_options(${target} PRIVATE $<$<CONFIG:Release,RelWithDebInfo>:-fno-semantic-interposition;-fno-plt>)
    target_link_options(${target} PRIVATE LINKER:-Bsymbolic-functions LINKER:-z,now)
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# What strangers' bytes reach: a fuzzer sees there which branches an input takes, and gets through several times as many
# inputs where the code is optimised.
function(okv_fuzzed target)
    if(OKV_BUILD_FUZZ)
        target_compile_options(${target} PRIVATE -O1 -fsanitize=fuzzer-no-link)
    endif()
endfunction()

# okv_add_framework(OKVPlatform Platform [STATIC]): a library of ours, shared if not told otherwise, exported as okv::Platform.
function(okv_add_framework name export_name)
    cmake_parse_arguments(arg "STATIC" "" "" ${ARGN})
    set(kind SHARED)
    if(arg_STATIC)
        set(kind STATIC)
    endif()
    add_library(${name} ${kind})
    add_library(okv::${export_name} ALIAS ${name})
    okv_compile_options(${name})
    target_compile_features(${name} PUBLIC cxx_std_20)
    target_link_options(${name} PRIVATE $<$<NOT:$<BOOL:${OKV_CALLS_ITS_PROGRAM}>>:LINKER:--no-undefined>)
    set_target_properties(${name} PROPERTIES EXPORT_NAME ${export_name} VERSION ${OKV_ABI_VERSION}.0.0
        SOVERSION ${OKV_ABI_VERSION} VERIFY_INTERFACE_HEADER_SETS ON POSITION_INDEPENDENT_CODE ON)
    if(arg_STATIC)  # others' linkers take it as it is
        set_target_properties(${name} PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
    else()
        okv_fuzzed(${name})
    endif()
    set_property(GLOBAL APPEND PROPERTY OKV_FRAMEWORKS ${name})
endfunction()

# okv_sources(OKVPlatform SOURCES a.cpp HEADERS a.h): headers keep their path below src/Frameworks when installed.
function(okv_sources target)
    cmake_parse_arguments(arg "" "" "SOURCES;HEADERS" ${ARGN})
    target_sources(${target} PRIVATE ${arg_SOURCES})
    if(arg_HEADERS)
        target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR}/src/Frameworks FILES ${arg_HEADERS})
    endif()
endfunction()

# For the tests' own code, in which an overflow or a wrong shift harms nobody: to look for those takes a fifth of its build.
# (Its memory and its threads are looked at as the libraries' are.)
function(okv_test_options target)
    okv_compile_options(${target})
    if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=[a-z,]*undefined")
        target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
    endif()
endfunction()

# okv_add_test(name SOURCES a.cpp LIBRARIES okv::Platform [TIMEOUT seconds] [COST n] [SEPARATE]): one executable,
# every case a ctest entry. Where OKV_TEST_SHARDS tells so, a few processes share the cases, because a sanitized process
# takes long to start; but not of a SEPARATE program, whose cases take long themselves or leave things behind in a process.
# Those of a high cost start first.
function(okv_add_test name)
    cmake_parse_arguments(arg "SEPARATE" "TIMEOUT;COST" "SOURCES;LIBRARIES;DEFINITIONS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    okv_test_options(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
    if(TARGET okv_fork_with_asan)
        target_link_libraries(${name} PRIVATE okv_fork_with_asan)
    endif()
    target_compile_definitions(${name} PRIVATE ${arg_DEFINITIONS})
    target_precompile_headers(${name} REUSE_FROM okv_test_headers)
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    if(NOT arg_COST)
        set(arg_COST 0)
    endif()
    if(OKV_TEST_SHARDS AND NOT arg_SEPARATE)
        okv_add_shards(${name} ${arg_COST})
    else()
        # The list of a program's tests is asked for with the tests' own patience: where it takes longer than the five seconds
        # that are the default, ctest ends without running anything of the whole folder.
        gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT ${arg_TIMEOUT} NO_PRETTY_VALUES
            PROPERTIES TIMEOUT ${arg_TIMEOUT} COST ${arg_COST})
    endif()
endfunction()

function(okv_add_shards name cost)
    math(EXPR last "${OKV_TEST_SHARDS} - 1")
    foreach(shard RANGE ${last})
        add_test(NAME ${name}.${shard} COMMAND ${name})  # not briefly: what is skipped is to be named in the log
        set_tests_properties(${name}.${shard} PROPERTIES TIMEOUT 600 COST ${cost}
            ENVIRONMENT "GTEST_TOTAL_SHARDS=${OKV_TEST_SHARDS};GTEST_SHARD_INDEX=${shard}")
    endforeach()
endfunction()

# okv_add_fuzz(name SOURCES a.cpp LIBRARIES okv::Platform): a libFuzzer target over tests/corpus/<name>. Built by clang
# only; the source defines LLVMFuzzerTestOneInput.
function(okv_add_fuzz name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(fuzz_${name} ${arg_SOURCES})
    okv_compile_options(fuzz_${name})
    okv_fuzzed(fuzz_${name})
    target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(fuzz_${name} PRIVATE ${arg_LIBRARIES})
endfunction()
