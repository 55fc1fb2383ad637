# All from Debian; packaging/packages.txt lists them for `dev`.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(LibXml2 REQUIRED)
pkg_check_modules(OSIP REQUIRED IMPORTED_TARGET libosip2)
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
