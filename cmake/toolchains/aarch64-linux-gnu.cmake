# AArch64 (aarch64-linux-gnu), Debian's cross compiler.  json-c and GoogleTest
# come from the Debian archive through multiarch (libjson-c-dev:arm64,
# libgtest-dev:arm64), so the host root is searched with the arm64 library
# directory.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(LANPROBE_CROSS_TRIPLET aarch64-linux-gnu)
set(LANPROBE_CROSS_MULTIARCH ON)
set(LANPROBE_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
