# AArch64 (OpenWrt's aarch64_generic and cortex-a53 targets), musl.
# Compiler wrappers and libraries come from the stage that
# scripts/cross.sh musl aarch64 prepares; see musl-zig.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(LANPROBE_MUSL_ARCH aarch64)
set(LANPROBE_MUSL_LOADER /lib/ld-musl-aarch64.so.1)
set(LANPROBE_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/musl-zig.cmake)
