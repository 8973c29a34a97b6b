# Little-endian 32-bit MIPS, soft float (OpenWrt's mipsel_24kc), musl.
# Compiler wrappers and libraries come from the stage that
# scripts/cross.sh musl mipsel prepares; see musl-zig.cmake.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(LANPROBE_MUSL_ARCH mipsel)
set(LANPROBE_MUSL_LOADER /lib/ld-musl-mipsel-sf.so.1)
set(LANPROBE_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/musl-zig.cmake)
