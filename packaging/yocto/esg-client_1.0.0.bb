# For release 5.0. Never built with bitbake: scripts/check-recipes compares its options and file lists with what
# CMake installs.
SUMMARY = "Client library for an electronic service guide on the D-Bus system bus"
SECTION = "libs"
# The owner grants the licence; none has been chosen.
LICENSE = "CLOSED"

# Where the source is kept is the layer's to say, in a .bbappend.
SRC_URI ?= "git://git.example.com/esg-client.git;protocol=https;branch=main"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "dbus dbus-glib glib-2.0 jsoncpp"

inherit cmake pkgconfig python3-dir systemd useradd

EXTRA_OECMAKE = " \
    -DESG_BUILD_TESTS=OFF \
    -DESG_BUILD_EXAMPLES=OFF \
    -DESG_BUILD_DOCS=OFF \
    -DESG_PYTHON_DIR=${PYTHON_SITEPACKAGES_DIR} \
"

# simdjson is one more package on the device; without it, JsonCpp alone reads the answers.
PACKAGECONFIG ??= "tools"
PACKAGECONFIG[tools] = "-DESG_BUILD_TOOLS=ON,-DESG_BUILD_TOOLS=OFF,cli11 pugixml util-linux zlib"
PACKAGECONFIG[simdjson] = "-DESG_DIRECT_READER=ON,-DESG_DIRECT_READER=OFF,simdjson"
# The device's own log and assertion libraries: set ESG_PLATFORM to their names, without "lib".
PACKAGECONFIG[device-platform] = "-DESG_PLATFORM_LIBRARIES='${ESG_PLATFORM}',,"

# The unit goes to lib/systemd, which is another folder where / and /usr are not merged. The folders are for a bus
# that starts the service without systemd.
do_install:append() {
    if [ -e ${D}${bindir}/esg-guide-service ]; then
        if [ ${nonarch_libdir}/systemd/system != ${systemd_system_unitdir} ]; then
            install -d ${D}${systemd_unitdir}
            mv ${D}${nonarch_libdir}/systemd/system ${D}${systemd_system_unitdir}
            rmdir ${D}${nonarch_libdir}/systemd
        fi
        install -d -m 0750 -o esg-guide -g esg-guide ${D}${localstatedir}/lib/esg-guide-service \
            ${D}${localstatedir}/lib/esg-guide-service/guide ${D}${localstatedir}/lib/esg-guide-service/saved
        # Makes the list that the service writes the machine's list of services.
        install -d -m 0755 -o esg-guide -g esg-guide ${D}${localstatedir}/cache/esg-guide-service
        install -d ${D}${sysconfdir}/esg-client
        ln -s ${localstatedir}/cache/esg-guide-service/services ${D}${sysconfdir}/esg-client/services
    fi
}

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
    ${localstatedir}/cache/esg-guide-service \
    ${localstatedir}/lib/esg-guide-service \
    ${sysconfdir}/esg-client \
    ${nonarch_libdir}/sysusers.d/esg-guide-service.conf \
    ${nonarch_libdir}/tmpfiles.d/esg-guide-service.conf \
    ${systemd_system_unitdir} \
"
FILES:python3-esg-client = "${PYTHON_SITEPACKAGES_DIR}"

RDEPENDS:${PN} = "${PN}-common"
RDEPENDS:python3-esg-client = "${PN} python3-core python3-ctypes python3-datetime python3-threading"

USERADD_PACKAGES = "${PN}-common esg-guide-service"
GROUPADD_PARAM:${PN}-common = "--system esg-event"
USERADD_PARAM:esg-guide-service = "--system --user-group --no-create-home \
    --home-dir /var/lib/esg-guide-service --shell /sbin/nologin esg-guide"

# The first call on the bus starts it. Without the tools there is no unit, which the class would miss.
SYSTEMD_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'tools', 'esg-guide-service', '', d)}"
SYSTEMD_SERVICE:esg-guide-service = "esg-guide-service.service"
SYSTEMD_AUTO_ENABLE = "disable"
