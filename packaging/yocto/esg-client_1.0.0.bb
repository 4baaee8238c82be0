# Never built with bitbake; only its options and file lists have been compared with the CMake files.
SUMMARY = "Client library for an electronic service guide on the D-Bus system bus"
SECTION = "libs"
# The owner grants the licence; none has been chosen.
LICENSE = "CLOSED"

# Where the source is kept is the layer's to say, in a .bbappend.
SRC_URI ?= "git://git.example.com/esg-client.git;protocol=https;branch=main"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "dbus dbus-glib glib-2.0 jsoncpp"

inherit cmake pkgconfig systemd useradd

EXTRA_OECMAKE = "-DESG_BUILD_TESTS=OFF -DESG_BUILD_EXAMPLES=OFF -DESG_BUILD_DOCS=OFF"

PACKAGECONFIG ??= "tools simdjson"
PACKAGECONFIG[tools] = "-DESG_BUILD_TOOLS=ON,-DESG_BUILD_TOOLS=OFF,cli11 pugixml util-linux zlib"
PACKAGECONFIG[simdjson] = "-DESG_DIRECT_READER=ON,-DESG_DIRECT_READER=OFF,simdjson"
# The device's own log and assertion libraries: set ESG_PLATFORM to their names, without "lib".
PACKAGECONFIG[device-platform] = "-DESG_PLATFORM_LIBRARIES=${ESG_PLATFORM},,"

PACKAGES =+ "${PN}-common ${PN}-platform esgctl esg-guide-service python3-esg-client"

FILES:${PN}-common = " \
    ${datadir}/dbus-1/interfaces \
    ${datadir}/dbus-1/system.d/com.velmora.ESGCallListener.conf \
    ${datadir}/esg-client/esg-client-limits.conf \
    ${nonarch_libdir}/sysusers.d/esg-client.conf \
"
FILES:${PN}-platform = "${libdir}/libesg-platform.so.*"
FILES:esgctl = " \
    ${bindir}/esgctl \
    ${datadir}/bash-completion \
    ${datadir}/zsh \
"
FILES:esg-guide-service = " \
    ${bindir}/esg-guide-service \
    ${datadir}/dbus-1/system-services \
    ${datadir}/dbus-1/system.d/esg-guide-service.conf \
    ${datadir}/esg-client/guide \
    ${systemd_system_unitdir} \
    ${nonarch_libdir}/sysusers.d/esg-guide-service.conf \
    ${nonarch_libdir}/tmpfiles.d/esg-guide-service.conf \
"
FILES:python3-esg-client = "${nonarch_libdir}/python3"

RDEPENDS:${PN} = "${PN}-common"
RDEPENDS:python3-esg-client = "${PN} python3-ctypes"

USERADD_PACKAGES = "${PN}-common esg-guide-service"
GROUPADD_PARAM:${PN}-common = "--system esg-event"
USERADD_PARAM:esg-guide-service = "--system --user-group --no-create-home \
    --home-dir /var/lib/esg-guide-service --shell /sbin/nologin esg-guide"

# The first call on the bus starts it.
SYSTEMD_PACKAGES = "esg-guide-service"
SYSTEMD_SERVICE:esg-guide-service = "esg-guide-service.service"
SYSTEMD_AUTO_ENABLE = "disable"
