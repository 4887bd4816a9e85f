# What Debian's cross compilers have in common. The C and C++ libraries come with the compiler; all
# others were unpacked by scripts/setup, and this machine's own are never looked at.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

set(quorcore_target_root
    ${CMAKE_CURRENT_LIST_DIR}/../../build/debian/${quorcore_debian_arch}/root)
get_filename_component(quorcore_target_root ${quorcore_target_root} ABSOLUTE)

set(CMAKE_FIND_ROOT_PATH ${quorcore_target_root} /usr/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# For the libraries that a library of ours needs itself.
set(target_lib ${quorcore_target_root}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${target_lib}")
