# The libraries that the system calls; script/bootstrap installs them.

find_package(PkgConfig REQUIRED)
find_package(Boost 1.71 REQUIRED CONFIG)
find_package(OpenSSL REQUIRED)
pkg_check_modules(MARIADB REQUIRED IMPORTED_TARGET libmariadb)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(LIBIDN REQUIRED IMPORTED_TARGET libidn)
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)

# Boost 1.74 includes a header of its own that it calls deprecated, and its placeholders
# warn when they are used as documented; the define silences exactly these two.
target_compile_definitions(Boost::headers INTERFACE
  BOOST_BIND_GLOBAL_PLACEHOLDERS BOOST_ALLOW_DEPRECATED_HEADERS)
