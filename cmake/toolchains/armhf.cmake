# 32-bit ARM with hardware floating point, as the product has it.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(quorcore_debian_arch armhf)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)

# GCC 7 changed how some classes are passed; nothing here is linked with what an older one compiled.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
