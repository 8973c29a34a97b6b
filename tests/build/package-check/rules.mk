# Stands in for an OpenWrt build tree's rules.mk when tests/build/package-check.sh
# runs a package recipe: the directories, commands and target flags a recipe
# uses.  The script sets on make's command line: BUILD_DIR, STAGING_DIR,
# TARGET_CC, TARGET_CXX, CPU_CFLAGS, CMAKE_SYSTEM_PROCESSOR, NINJA_JOBS and,
# for a debug build, CONFIG_DEBUG=y.
INCLUDE_DIR := $(TOPDIR)/include

CP := cp -fpR
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755

# Optimised for size with the CPU's own flags, plus the hardening a default
# configuration adds (stack protector, fortified libc calls, format checks
# that are errors).
TARGET_CFLAGS := -Os -pipe $(CPU_CFLAGS) -fstack-protector -D_FORTIFY_SOURCE=1 \
	-Wformat -Werror=format-security
TARGET_LDFLAGS := -L$(STAGING_DIR)/usr/lib -Wl,-z,now -Wl,-z,relro
