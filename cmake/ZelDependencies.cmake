# Every external dependency is found here, once, and offered as an imported target.
# scripts/install-deps installs the Debian packages that provide them.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(LOG4CPP REQUIRED IMPORTED_TARGET log4cpp)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
pkg_check_modules(LIBXML2 REQUIRED IMPORTED_TARGET libxml-2.0)
pkg_check_modules(LIBCURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(LIBNL REQUIRED IMPORTED_TARGET libnl-genl-3.0)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(LIBPQ REQUIRED IMPORTED_TARGET libpq)
# The tests' and the benchmark's HTTP client; the server is built on Boost.Beast.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
# zel-server's HTTP(S): Boost.Beast and Boost.Asio (header-only) over OpenSSL.
find_package(Boost 1.74 REQUIRED)
find_package(OpenSSL REQUIRED)

find_package(CLI11 CONFIG REQUIRED)
find_package(nlohmann_json CONFIG REQUIRED)
# gzip request bodies of the geolocate route
find_package(ZLIB REQUIRED)

if(ZEL_BUILD_TESTS)
    find_package(GTest REQUIRED)
    include(GoogleTest)
endif()
if(ZEL_BUILD_BENCHMARKS)
    find_package(benchmark REQUIRED)
endif()
