# The Windows build's dependencies. What Linux takes from Debian's libraries comes
# from Windows itself (WinInet, MSXML, BCrypt, Native Wifi) or from header-only
# libraries; programs and the DLL are linked -static, since the posix compiler's
# runtime DLLs are not on a Windows machine (a program without them exits with 53).
find_package(Threads REQUIRED)
add_link_options(-static)

# Header-only libraries from Debian's /usr/include, seen through a folder that holds
# only them: putting /usr/include itself on the path would mix Linux headers in.
set(ZEL_HEADER_ONLY_DIR ${PROJECT_BINARY_DIR}/header-only)
file(MAKE_DIRECTORY ${ZEL_HEADER_ONLY_DIR})
foreach(folder nlohmann CLI spdlog fmt)
    if(NOT EXISTS /usr/include/${folder})
        message(FATAL_ERROR "/usr/include/${folder} is missing: run scripts/install-deps")
    endif()
    file(CREATE_LINK /usr/include/${folder} ${ZEL_HEADER_ONLY_DIR}/${folder} SYMBOLIC)
endforeach()

add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)
set_target_properties(nlohmann_json::nlohmann_json PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ZEL_HEADER_ONLY_DIR}
    INTERFACE_INCLUDE_DIRECTORIES ${ZEL_HEADER_ONLY_DIR})
add_library(CLI11::CLI11 ALIAS nlohmann_json::nlohmann_json)
# spdlog with fmt, both header-only; only the log back end includes them.
add_library(zel_spdlog INTERFACE)
target_include_directories(zel_spdlog SYSTEM INTERFACE ${ZEL_HEADER_ONLY_DIR})
target_compile_definitions(zel_spdlog INTERFACE
    FMT_HEADER_ONLY SPDLOG_FMT_EXTERNAL SPDLOG_WCHAR_FILENAMES)

# MD4 for the tile format: Windows' BCrypt behind nettle's md4 interface
# (src/spi/md4), so the tile code compiles unchanged.
add_library(PkgConfig::NETTLE INTERFACE IMPORTED)
set_target_properties(PkgConfig::NETTLE PROPERTIES INTERFACE_LINK_LIBRARIES zel_spi_md4)

if(ZEL_BUILD_TESTS)
    # GoogleTest from Debian's sources, built with this toolchain.
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    include(GoogleTest)

    # Tests run under Wine, in a prefix of the build tree's own.
    find_program(ZEL_WINE64 wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH REQUIRED)
    find_program(ZEL_WINESERVER wineserver PATHS /usr/lib/wine NO_DEFAULT_PATH REQUIRED)
    set(ZEL_WINEPREFIX ${PROJECT_BINARY_DIR}/wineprefix)
    set(CMAKE_CROSSCOMPILING_EMULATOR
        ${PROJECT_SOURCE_DIR}/scripts/wine ${ZEL_WINE64} ${ZEL_WINEPREFIX})
endif()
