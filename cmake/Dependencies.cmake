# The dependencies of the library itself. Tools and tests find theirs in their own folders.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(ESG_JSONCPP REQUIRED IMPORTED_TARGET GLOBAL jsoncpp>=1.9)
pkg_check_modules(ESG_DBUS REQUIRED IMPORTED_TARGET GLOBAL dbus-1>=1.12)
pkg_check_modules(ESG_DBUS_GLIB REQUIRED IMPORTED_TARGET GLOBAL dbus-glib-1)
pkg_check_modules(ESG_GLIB REQUIRED IMPORTED_TARGET GLOBAL glib-2.0)
if(ESG_DIRECT_READER)
  pkg_check_modules(ESG_SIMDJSON REQUIRED IMPORTED_TARGET simdjson)
endif()
