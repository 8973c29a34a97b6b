# Big-endian 32-bit MIPS (mips-linux-gnu), Debian's cross compiler.
# Libraries the Debian archive has no mips build of (json-c, GoogleTest) come
# from a stage prefix: LANPROBE_CROSS_STAGE/mips, or LANPROBE_LIB_PREFIX.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(LANPROBE_CROSS_TRIPLET mips-linux-gnu)
set(LANPROBE_QEMU qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
