# Shared part of the cross toolchain files; the including file sets
# CMAKE_SYSTEM_PROCESSOR, LANPROBE_CROSS_TRIPLET, LANPROBE_QEMU and, when the
# target's libraries come from the Debian archive, LANPROBE_CROSS_MULTIARCH.
set(CMAKE_C_COMPILER ${LANPROBE_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${LANPROBE_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${LANPROBE_CROSS_TRIPLET})

# Debian's cross C library lives under /usr/<triplet>.
set(LANPROBE_CROSS_SYSROOT /usr/${LANPROBE_CROSS_TRIPLET})

# Third-party libraries built for the target (scripts/cross.sh) are installed
# into a stage prefix per architecture.
if(DEFINED ENV{LANPROBE_CROSS_STAGE})
  set(LANPROBE_CROSS_STAGE_DIR $ENV{LANPROBE_CROSS_STAGE}/${CMAKE_SYSTEM_PROCESSOR})
else()
  get_filename_component(LANPROBE_CROSS_STAGE_DIR
                         ${CMAKE_CURRENT_LIST_DIR}/../../out/cross/${CMAKE_SYSTEM_PROCESSOR} ABSOLUTE)
endif()

# Search only target locations for headers, libraries and packages, never the
# build machine's own libraries; programs (qemu, readelf) are the host's.
set(CMAKE_FIND_ROOT_PATH ${LANPROBE_CROSS_STAGE_DIR} ${LANPROBE_CROSS_SYSROOT})
if(LANPROBE_CROSS_MULTIARCH)
  # Multiarch packages install into /usr/include and /usr/lib/<triplet>.
  list(APPEND CMAKE_FIND_ROOT_PATH /)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs run under qemu-user.  With multiarch packages the target's C
# library is installed in the host root as well (libc6:<arch>, pulled in by
# the -dev packages), and that copy must be the one loaded: the loader and the
# C library have to come from the same build, and the loader looks in
# /lib/<triplet> before the cross sysroot's lib directory.  A mixed pair hangs
# in fork().
if(LANPROBE_CROSS_MULTIARCH)
  set(LANPROBE_QEMU_ROOT /)
else()
  set(LANPROBE_QEMU_ROOT ${LANPROBE_CROSS_SYSROOT})
endif()
find_program(LANPROBE_QEMU_PROGRAM ${LANPROBE_QEMU})
if(LANPROBE_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${LANPROBE_QEMU_PROGRAM} -L ${LANPROBE_QEMU_ROOT})
endif()
