################################################################################
#
# esg-client
#
# Never built with Buildroot; only its options have been compared with the CMake files.
#
################################################################################

ESG_CLIENT_VERSION = 1.0.0
ESG_CLIENT_SITE = $(call qstrip,$(BR2_PACKAGE_ESG_CLIENT_SOURCE))
ESG_CLIENT_SITE_METHOD = local
ESG_CLIENT_INSTALL_STAGING = YES
ESG_CLIENT_DEPENDENCIES = host-pkgconf dbus dbus-glib jsoncpp libglib2

# simdjson would be one more package on the device; JsonCpp reads the answers without it.
ESG_CLIENT_CONF_OPTS = \
	-DESG_BUILD_DOCS=OFF \
	-DESG_BUILD_EXAMPLES=OFF \
	-DESG_BUILD_TESTS=OFF \
	-DESG_DIRECT_READER=OFF \
	-DESG_PLATFORM_LIBRARIES="$(call qstrip,$(BR2_PACKAGE_ESG_CLIENT_PLATFORM))"

ifeq ($(BR2_PACKAGE_ESG_CLIENT_TOOLS),y)
ESG_CLIENT_CONF_OPTS += -DESG_BUILD_TOOLS=ON
ESG_CLIENT_DEPENDENCIES += cli11 pugixml util-linux zlib
define ESG_CLIENT_USERS
	esg-guide -1 esg-guide -1 * /var/lib/esg-guide-service - esg-event Electronic service guide
endef
else
ESG_CLIENT_CONF_OPTS += -DESG_BUILD_TOOLS=OFF
define ESG_CLIENT_USERS
	- - esg-event -1 - - - - Sends events to single applications
endef
endif

$(eval $(cmake-package))
