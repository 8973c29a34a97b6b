# Stands in for an OpenWrt build tree's include/cmake.mk: configures, builds
# and installs a CMake package the way the build system does.  Out of the
# source tree in openwrt-build/, with Ninja, the build type Release
# (RelWithDebInfo when CONFIG_DEBUG is set) whose own flags are only -DNDEBUG,
# the target's flags from the environment, the staging directory as the only
# root for headers and libraries, /usr as prefix, no rpath, and the recipe's
# CMAKE_OPTIONS last.
CMAKE_SOURCE_DIR = $(PKG_BUILD_DIR)
CMAKE_BINARY_DIR = $(PKG_BUILD_DIR)/openwrt-build
CMAKE_INSTALL_PREFIX ?= /usr
CMAKE_FIND_ROOT_PATH := $(STAGING_DIR)/usr
NINJA ?= ninja

define Build/Configure/Default
	mkdir -p $(CMAKE_BINARY_DIR)
	cd $(CMAKE_BINARY_DIR) && \
	CFLAGS="$(TARGET_CFLAGS)" CXXFLAGS="$(TARGET_CFLAGS)" LDFLAGS="$(TARGET_LDFLAGS)" \
	cmake --no-warn-unused-cli \
		-DCMAKE_SYSTEM_NAME=Linux \
		-DCMAKE_SYSTEM_PROCESSOR=$(CMAKE_SYSTEM_PROCESSOR) \
		-DCMAKE_BUILD_TYPE=$(if $(CONFIG_DEBUG),RelWithDebInfo,Release) \
		-DCMAKE_C_FLAGS_RELEASE="-DNDEBUG" \
		-DCMAKE_CXX_FLAGS_RELEASE="-DNDEBUG" \
		-DCMAKE_C_COMPILER="$(TARGET_CC)" \
		-DCMAKE_CXX_COMPILER="$(TARGET_CXX)" \
		-DCMAKE_EXE_LINKER_FLAGS:STRING="$(TARGET_LDFLAGS)" \
		-DCMAKE_FIND_ROOT_PATH="$(CMAKE_FIND_ROOT_PATH)" \
		-DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=NEVER \
		-DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY \
		-DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY \
		-DCMAKE_STRIP=: \
		-DCMAKE_INSTALL_PREFIX=$(CMAKE_INSTALL_PREFIX) \
		-DCMAKE_SKIP_RPATH=TRUE \
		-G Ninja \
		$(CMAKE_OPTIONS) \
		$(CMAKE_SOURCE_DIR)
endef

define Build/Compile/Default
	$(NINJA) -C $(CMAKE_BINARY_DIR) -j $(NINJA_JOBS)
endef

define Build/Install/Default
	DESTDIR="$(PKG_INSTALL_DIR)" $(NINJA) -C $(CMAKE_BINARY_DIR) install
endef

define Build/Configure
$(call Build/Configure/Default)
endef

define Build/Compile
$(call Build/Compile/Default)
endef

define Build/Install
$(call Build/Install/Default)
endef
