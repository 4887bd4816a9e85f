# The rules by which a new file becomes a program without an edit of any CMakeLists.txt.

# One program of the source tree, using the library as a user would.
function(quorcore_add_program name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE QuorCore::QuorCore)
    quorcore_compile_strictly(${name})
endfunction()

# FOLDER/NAME.cpp and FOLDER/NAME/*.cpp each become the program NAME. A subfolder with a
# CMakeLists.txt of its own is left to that. FOLDER/common/*.cpp become FOLDERcommon, a library that
# the programs of subfolders share.
function(quorcore_add_programs folder)
    set(dir ${PROJECT_SOURCE_DIR}/${folder})
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder})
    file(GLOB files CONFIGURE_DEPENDS ${dir}/*.cpp)
    foreach(file IN LISTS files)
        get_filename_component(name ${file} NAME_WE)
        quorcore_add_program(${name} ${file})
    endforeach()
    # Listed in one go: CMake looks again when a file comes or goes anywhere below the folder.
    file(GLOB nested CONFIGURE_DEPENDS ${dir}/*/CMakeLists.txt ${dir}/*/*.cpp)
    set(subfolders ${nested})
    list(TRANSFORM subfolders REPLACE "/[^/]+$" "")
    list(REMOVE_DUPLICATES subfolders)
    file(GLOB shared CONFIGURE_DEPENDS ${dir}/common/*.cpp)
    if(shared)
        add_library(${folder}common STATIC ${shared})
        target_link_libraries(${folder}common PUBLIC QuorCore::QuorCore)
        quorcore_compile_strictly(${folder}common)
        list(REMOVE_ITEM subfolders ${dir}/common)
    endif()
    foreach(subfolder IN LISTS subfolders)
        if(EXISTS ${subfolder}/CMakeLists.txt)
            add_subdirectory(${subfolder})
        else()
            get_filename_component(name ${subfolder} NAME)
            file(GLOB sources CONFIGURE_DEPENDS ${subfolder}/*.cpp)
            quorcore_add_program(${name} ${sources})
            if(shared)
                target_link_libraries(${name} PRIVATE ${folder}common)
            endif()
        endif()
    endforeach()
endfunction()

# FOLDER/NAMEBench.cpp becomes the benchmark NAMEBench, whose main() is in FOLDER/support/.
function(quorcore_add_benches folder)
    set(dir ${PROJECT_SOURCE_DIR}/${folder})
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder})
    file(GLOB sources CONFIGURE_DEPENDS ${dir}/support/*.cpp)
    add_library(benchsupport STATIC ${sources}
                                    ${PROJECT_SOURCE_DIR}/tests/support/PrivateDev.cpp
                                    ${PROJECT_SOURCE_DIR}/tests/support/Files.cpp)
    target_include_directories(benchsupport PUBLIC ${dir} ${PROJECT_SOURCE_DIR}/tests
                                            PRIVATE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(benchsupport PUBLIC QuorCore::QuorCore benchmark::benchmark Threads::Threads)
    quorcore_compile_strictly(benchsupport)
    file(GLOB files CONFIGURE_DEPENDS ${dir}/*Bench.cpp)
    foreach(file IN LISTS files)
        get_filename_component(name ${file} NAME_WE)
        quorcore_add_program(${name} ${file})
        target_link_libraries(${name} PRIVATE benchsupport)
    endforeach()
    # By hand, without the library: what a whole daemon is measured against.
    add_executable(raw_daemon ${dir}/programs/raw_daemon.cpp)
    target_link_libraries(raw_daemon PRIVATE Threads::Threads)
    quorcore_compile_strictly(raw_daemon)
    target_compile_definitions(
        HelloDaemonBench PRIVATE HELLO_DAEMON="$<TARGET_FILE:hello_daemon>"
                                 RAW_DAEMON="$<TARGET_FILE:raw_daemon>")
    add_dependencies(HelloDaemonBench hello_daemon raw_daemon)
endfunction()

# FOLDER/INPUTFuzz.cpp becomes the fuzz target INPUTFuzz; it starts best from FOLDER/INPUTSeeds:
# BUILD/fuzz/INPUTFuzz NEW_INPUTS FOLDER/INPUTSeeds
function(quorcore_add_fuzzers folder)
    set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder})
    file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*Fuzz.cpp)
    foreach(file IN LISTS files)
        get_filename_component(name ${file} NAME_WE)
        quorcore_add_program(${name} ${file})
        target_link_options(${name} PRIVATE -fsanitize=fuzzer)
        # The library is a static one here, which hides nothing.
        target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src)
    endforeach()
endfunction()
