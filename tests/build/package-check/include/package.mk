# Stands in for an OpenWrt build tree's include/package.mk: the package's
# directories, and BuildPackage, which runs the recipe's steps in the build
# system's order.  Targets:
#   package   Build/Prepare, Build/Configure, Build/Compile, Build/Install
#             (with PKG_INSTALL=1), then Package/<name>/install into
#             $(PKG_BUILD_DIR)/ipkg/<name>, the package's file tree.
#   val.VAR   prints the value of VAR (PKG_BUILD_DIR, DEPENDS, ...).
PKG_BUILD_DIR ?= $(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install

# A recipe without sources of its own (PKG_SOURCE) has to say how they get
# into the build directory.
define Build/Prepare
	@echo "$(PKG_NAME): no Build/Prepare and no PKG_SOURCE" >&2; false
endef

define BuildPackage
$(eval $(Package/$(1)))
IPKG_DIR_$(1) := $(PKG_BUILD_DIR)/ipkg/$(1)

.PHONY: package
package:
	rm -rf $(PKG_BUILD_DIR)
	$$(Build/Prepare)
	$$(Build/Configure)
	$$(Build/Compile)
	$(if $(filter 1,$(PKG_INSTALL)),$$(Build/Install))
	$(INSTALL_DIR) $$(IPKG_DIR_$(1))
	$$(call Package/$(1)/install,$$(IPKG_DIR_$(1)))

val.%:
	@echo $$($$*)
endef
