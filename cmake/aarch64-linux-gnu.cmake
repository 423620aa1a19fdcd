# Cross build for AArch64 Linux with Debian's cross compiler, unpacked by
# scripts/aarch64-toolchain.sh into .cache/aarch64 (or $KEP_AARCH64_CACHE); tests
# run under qemu-aarch64-static from the same cache.
#
#   scripts/aarch64-toolchain.sh
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(DEFINED ENV{KEP_AARCH64_CACHE})
  set(kep_aarch64_cache "$ENV{KEP_AARCH64_CACHE}")
else()
  set(kep_aarch64_cache "${CMAKE_CURRENT_LIST_DIR}/../.cache/aarch64")
endif()
get_filename_component(kep_aarch64_cache "${kep_aarch64_cache}" ABSOLUTE)
if(NOT EXISTS "${kep_aarch64_cache}/bin/aarch64-linux-gnu-g++")
  message(FATAL_ERROR "No AArch64 toolchain in ${kep_aarch64_cache}: run scripts/aarch64-toolchain.sh first")
endif()

set(CMAKE_C_COMPILER "${kep_aarch64_cache}/bin/aarch64-linux-gnu-gcc")
set(CMAKE_CXX_COMPILER "${kep_aarch64_cache}/bin/aarch64-linux-gnu-g++")
set(CMAKE_AR "${kep_aarch64_cache}/bin/aarch64-linux-gnu-ar" CACHE FILEPATH "Archiver")
set(CMAKE_RANLIB "${kep_aarch64_cache}/bin/aarch64-linux-gnu-ranlib" CACHE FILEPATH "Archive indexer")
set(CMAKE_SYSROOT "${kep_aarch64_cache}/sysroot")

# Target libraries come from the sysroot and from the AArch64 GoogleTest build only.
set(CMAKE_FIND_ROOT_PATH "${kep_aarch64_cache}/gtest")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs (and gtest_discover_tests) run through the user-mode emulator, with
# the AArch64 dynamic loader and libraries of the unpacked cross packages.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${kep_aarch64_cache}/sysroot/usr/bin/qemu-aarch64-static;-L;${kep_aarch64_cache}/sysroot/usr/aarch64-linux-gnu")
