# What a builder may choose, and the flags that follow from it.

set(static_by_default OFF)
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
    set(static_by_default ON)
endif()

option(QUORCORE_STATIC "Build a static library; also chosen by BUILD_SHARED_LIBS=OFF"
       ${static_by_default})
option(QUORCORE_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(QUORCORE_EXAMPLES "Build the example daemons" ${PROJECT_IS_TOP_LEVEL})
option(QUORCORE_TOOLS "Build the command-line tools; needs CLI11 and jsoncpp" ${PROJECT_IS_TOP_LEVEL})
option(QUORCORE_BENCH "Build the benchmarks" OFF)
option(QUORCORE_FUZZ "Build the fuzz targets and all else with them; needs Clang" OFF)
option(QUORCORE_WERROR "Let a compiler warning fail the build" OFF)
set(QUORCORE_SANITIZE "" CACHE STRING "Sanitizers for all code, as 'address,undefined' or 'thread'")

if(QUORCORE_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
        message(FATAL_ERROR "QUORCORE_FUZZ needs Clang: -DCMAKE_CXX_COMPILER=clang++-14")
    endif()
    # The library is instrumented, too; the fuzzer finds its way by what it reaches in there.
    set(QUORCORE_SANITIZE fuzzer-no-link,address,undefined)
    set(QUORCORE_STATIC ON) # Clang links its sanitizers into programs only
endif()
if(QUORCORE_SANITIZE)
    # For the whole build: a race or a leak is seen only if every object was instrumented.
    add_compile_options(-fsanitize=${QUORCORE_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${QUORCORE_SANITIZE})
endif()

file(RELATIVE_PATH path_to_sources ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
string(REGEX REPLACE "/$" "" path_to_sources "${path_to_sources}")

# Gives a target of ours the flags that all of our code is compiled with.
function(quorcore_compile_strictly target)
    target_compile_options(
        ${target}
        PRIVATE -Wall
                -Wextra
                -Wpedantic
                -Wshadow
                -Wconversion
                $<$<BOOL:${QUORCORE_WERROR}>:-Werror>
                # A log line names its source as "../src/X.cpp", wherever it was built, and also when
                # a compiler cache has made its path a relative one.
                -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=../
                -fmacro-prefix-map=${path_to_sources}/=../
                # 32-bit ARM: a backtrace ends at the first function without unwind tables.
                -funwind-tables)
endfunction()
