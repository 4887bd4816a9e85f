# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(quorcore_debian_arch arm64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
