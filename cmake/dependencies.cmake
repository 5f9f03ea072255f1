# Everything that comes from the system's packages. `./dev setup` installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(TIRPC REQUIRED IMPORTED_TARGET libtirpc)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(UV REQUIRED IMPORTED_TARGET libuv)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
