# Shared part of the musl toolchain files.  The compiler is zig's clang, which
# carries musl, libc++ and libc++abi and builds them for the target on first
# use; scripts/cross.sh installs zig and writes small wrappers (cc, c++, ar,
# ranlib) into the stage's bin/ that fix the target and CPU.  The including
# file sets CMAKE_SYSTEM_PROCESSOR, LANPROBE_MUSL_ARCH, LANPROBE_MUSL_LOADER
# and LANPROBE_QEMU.
#
# LANPROBE_MUSL_LINK selects how the daemon and the tests are linked:
#   static  (default) everything static, json-c from its archive; what the
#           tests use, because qemu-user then needs no musl loader on the
#           build machine;
#   dynamic against musl's libc.so and libjson-c.so, with OpenWrt's loader
#           path: the form an OpenWrt package installs.
set(CMAKE_SYSTEM_NAME Linux)

if(DEFINED ENV{LANPROBE_CROSS_STAGE})
  set(LANPROBE_MUSL_STAGE_ROOT $ENV{LANPROBE_CROSS_STAGE}/musl)
else()
  get_filename_component(LANPROBE_MUSL_STAGE_ROOT ${CMAKE_CURRENT_LIST_DIR}/../../out/cross/musl ABSOLUTE)
endif()
set(LANPROBE_CROSS_STAGE_DIR ${LANPROBE_MUSL_STAGE_ROOT}/${LANPROBE_MUSL_ARCH})
set(lp_musl_bin ${LANPROBE_CROSS_STAGE_DIR}/bin)
if(NOT EXISTS ${lp_musl_bin}/c++)
  message(FATAL_ERROR "No musl compiler wrappers in ${lp_musl_bin}: run scripts/cross.sh musl ${LANPROBE_MUSL_ARCH} first")
endif()
set(CMAKE_C_COMPILER ${lp_musl_bin}/cc)
set(CMAKE_CXX_COMPILER ${lp_musl_bin}/c++)
set(CMAKE_AR ${lp_musl_bin}/ar CACHE FILEPATH "Archiver" FORCE)
set(CMAKE_RANLIB ${lp_musl_bin}/ranlib CACHE FILEPATH "Archive indexer" FORCE)

# zig supplies the C library and its headers; the stage holds json-c,
# GoogleTest and uthash built for this target.  Nothing of the build
# machine's own /usr is searched.
set(CMAKE_FIND_ROOT_PATH ${LANPROBE_CROSS_STAGE_DIR})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(LANPROBE_MUSL_LINK static CACHE STRING "Link against musl statically (static) or as an OpenWrt package does (dynamic)")
set_property(CACHE LANPROBE_MUSL_LINK PROPERTY STRINGS static dynamic)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LANPROBE_MUSL_LINK)
if(LANPROBE_MUSL_LINK STREQUAL "static")
  # find_library would take the shared json-c first; name the archive.
  if(EXISTS ${LANPROBE_CROSS_STAGE_DIR}/lib/libjson-c.a)
    set(JSONC_LIBRARY ${LANPROBE_CROSS_STAGE_DIR}/lib/libjson-c.a CACHE FILEPATH "json-c library")
  endif()
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
  find_program(LANPROBE_QEMU_PROGRAM ${LANPROBE_QEMU})
  if(LANPROBE_QEMU_PROGRAM)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${LANPROBE_QEMU_PROGRAM})
  endif()
elseif(LANPROBE_MUSL_LINK STREQUAL "dynamic")
  # The loader path is part of the ABI: soft-float MIPS musl is
  # ld-musl-mips-sf.so.1 on the router, which zig 0.11 does not name by
  # itself.  musl-link/libc.so is the link-time libc.so built from zig's own
  # symbol list with the 32-bit time64 names (__time64, __select_time64, ...)
  # that zig 0.11 leaves out of its own; it comes first, so zig's copy adds
  # nothing and its NEEDED entry is dropped (--as-needed).
  set(lp_musl_libc ${LANPROBE_CROSS_STAGE_DIR}/musl-link/libc.so)
  if(NOT EXISTS ${lp_musl_libc})
    message(FATAL_ERROR "No ${lp_musl_libc}: run scripts/cross.sh musl ${LANPROBE_MUSL_ARCH} first")
  endif()
  # Programs are linked without libc++ and libc++abi (-nostdlib++): the
  # daemon needs nothing of them, and its link fails if it ever starts to.
  # (This build has no tests; they use libc++ and are linked statically.)
  # zig's compiler-rt also defines math functions (log2, fma, tan, ...) that
  # libc.so has too; the linker would export them from the program, out of
  # reach of --gc-sections.  Kept out of the exports, only what the program
  # calls stays.
  set(CMAKE_EXE_LINKER_FLAGS_INIT
      "-nostdlib++ -Wl,-dynamic-linker,${LANPROBE_MUSL_LOADER} -Wl,--exclude-libs=libcompiler_rt.a ${lp_musl_libc}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${lp_musl_libc}")
else()
  message(FATAL_ERROR "LANPROBE_MUSL_LINK must be static or dynamic, not '${LANPROBE_MUSL_LINK}'")
endif()
