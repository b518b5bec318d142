# What every target of ours has in common. Flags are private: nothing leaks into those who link us.

function(okv_compile_options target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
        -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wundef -Wformat=2 -Werror)
    # Calls inside a library are its own, and those out of it are bound when it is loaded.
    target_compile_options(${target} PRIVATE $<$<CONFIG:Release,RelWithDebInfo>:-fno-semantic-interposition;-fno-plt>)
    target_link_options(${target} PRIVATE LINKER:-Bsymbolic-functions LINKER:-z,now)
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
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
    target_link_options(${name} PRIVATE $<$<NOT:$<BOOL:${OKV_BUILD_FUZZ}>>:LINKER:--no-undefined>)
    set_target_properties(${name} PROPERTIES EXPORT_NAME ${export_name} VERSION ${OKV_ABI_VERSION}.0.0
        SOVERSION ${OKV_ABI_VERSION} VERIFY_INTERFACE_HEADER_SETS ON POSITION_INDEPENDENT_CODE ON)
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

# okv_add_test(name SOURCES a.cpp LIBRARIES okv::Platform [LABELS x]): one executable, every case a ctest entry.
function(okv_add_test name)
    cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS;DEFINITIONS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    okv_compile_options(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE ${arg_DEFINITIONS})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    # The list of a program's tests is asked for with the tests' own patience: where it takes longer than the five seconds
    # that are the default, ctest ends without running anything of the whole folder.
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT ${arg_TIMEOUT} NO_PRETTY_VALUES
        PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()

# okv_add_fuzz(name SOURCES a.cpp LIBRARIES okv::Platform): a libFuzzer target over tests/corpus/<name>. Built by clang
# only; the source defines LLVMFuzzerTestOneInput.
function(okv_add_fuzz name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(fuzz_${name} ${arg_SOURCES})
    okv_compile_options(fuzz_${name})
    target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(fuzz_${name} PRIVATE ${arg_LIBRARIES})
endfunction()
