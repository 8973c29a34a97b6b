# Big-endian 32-bit MIPS, soft float (OpenWrt's mips_24kc), musl.
# Compiler wrappers and libraries come from the stage that
# scripts/cross.sh musl mips prepares; see musl-zig.cmake.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(LANPROBE_MUSL_ARCH mips)
set(LANPROBE_MUSL_LOADER /lib/ld-musl-mips-sf.so.1)
set(LANPROBE_QEMU qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/musl-zig.cmake)
