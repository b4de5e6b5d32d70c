# Cross build for the player (AArch64) with Debian's cross toolchain
# (crossbuild-essential-arm64) and the arm64 libraries installed through
# multiarch (scripts/install-deps-arm64):
#
#   cmake -S . -B build-arm64 -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# Libraries, CMake packages and pkg-config files are the arm64 ones under
# /usr/lib/aarch64-linux-gnu; programs that run during the build (openssl,
# the D-Bus code generator) are the build machine's. Test programs run under
# user-mode QEMU through scripts/run-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# pkgconf's cross personality: only the arm64 .pc files.
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "pkg-config for arm64")

# Runs the test programs, and gtest_discover_tests' listing at build time,
# each run bounded in time; the tests start the build's other programs with
# VX_PROGRAM_EMULATOR, in their own process (tests/support/programs.h).
get_filename_component(_vx_source_dir "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${_vx_source_dir}/scripts/run-aarch64")
set(VX_PROGRAM_EMULATOR "${_vx_source_dir}/scripts/run-aarch64;--no-timeout")
