# Everything that is called but not written here, each from its Debian package.
find_package(PkgConfig REQUIRED)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)       # libsqlite3-dev
pkg_check_modules(MARIADB REQUIRED IMPORTED_TARGET libmariadb)    # libmariadb-dev
pkg_check_modules(LIBIDN REQUIRED IMPORTED_TARGET libidn)         # libidn-dev: GNU libidn, not libidn2
find_package(Boost 1.74 REQUIRED CONFIG)                          # libboost-dev: PropertyTree is header-only
