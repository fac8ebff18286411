# System libraries. Their headers are third-party code, so our warnings do not apply to them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(CURL 7.87 REQUIRED)
find_package(OpenSSL REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)
pkg_check_modules(GTHREAD REQUIRED IMPORTED_TARGET gthread-2.0)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0)
pkg_check_modules(GIO_UNIX REQUIRED IMPORTED_TARGET gio-unix-2.0)
pkg_check_modules(DBUS REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(DBUS_GLIB REQUIRED IMPORTED_TARGET dbus-glib-1)

# The places where a tracer looks on; see src/support/Probes.h. The header is all that is needed of it.
find_path(ORVEXD_SDT_INCLUDE_DIR sys/sdt.h DOC "Directory of sys/sdt.h (package systemtap-sdt-dev)" REQUIRED)
mark_as_advanced(ORVEXD_SDT_INCLUDE_DIR)
