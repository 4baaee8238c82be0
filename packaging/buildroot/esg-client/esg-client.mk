################################################################################
#
# esg-client
#
# Never built with Buildroot: scripts/check-recipes reads it with make, and compares its options with CMake's.
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

ifeq ($(BR2_PACKAGE_PYTHON3),y)
ESG_CLIENT_CONF_OPTS += -DESG_PYTHON_DIR=lib/python$(PYTHON3_VERSION_MAJOR)/site-packages
endif

define ESG_CLIENT_USERS
	- -1 esg-event -1 - - - - Sends events to single applications
	$(ESG_CLIENT_SERVICE_USER)
endef

ifeq ($(BR2_PACKAGE_ESG_CLIENT_TOOLS),y)
ESG_CLIENT_CONF_OPTS += -DESG_BUILD_TOOLS=ON
ESG_CLIENT_DEPENDENCIES += cli11 pugixml util-linux zlib
ESG_CLIENT_SERVICE_USER = esg-guide -1 esg-guide -1 * /var/lib/esg-guide-service - - Electronic service guide
# For a bus that starts the service without systemd.
define ESG_CLIENT_PERMISSIONS
	/var/lib/esg-guide-service d 750 esg-guide esg-guide - - - - -
	/var/lib/esg-guide-service/guide d 750 esg-guide esg-guide - - - - -
	/var/lib/esg-guide-service/saved d 750 esg-guide esg-guide - - - - -
	/var/cache/esg-guide-service d 755 esg-guide esg-guide - - - - -
endef
# Makes the list that the service writes the machine's list of services.
define ESG_CLIENT_LINK_SERVICES
	mkdir -p $(TARGET_DIR)/etc/esg-client
	ln -sf /var/cache/esg-guide-service/services $(TARGET_DIR)/etc/esg-client/services
endef
ESG_CLIENT_POST_INSTALL_TARGET_HOOKS += ESG_CLIENT_LINK_SERVICES
else
ESG_CLIENT_CONF_OPTS += -DESG_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
