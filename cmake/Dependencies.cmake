# Libraries of the daemon, all of them Debian packages (script/bootstrap installs them).

find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread chrono date_time system)
find_package(OpenSSL 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
