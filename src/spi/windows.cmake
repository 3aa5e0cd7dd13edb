# The platform seam and its Windows back ends, one folder per service as on Linux:
# Win32 files and mappings, WinInet, MSXML over COM, NDISUIO/WZC and Native Wifi
# adapters, the Win32 clock and text, spdlog for the log, BCrypt for MD4.
zel_add_library(zel_spi_md4 SOURCES md4/bcrypt_md4.cpp LIBS zel_spi_base bcrypt)
target_include_directories(zel_spi_md4 PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/md4)

zel_add_library(zel_spi_base
    SOURCES
        logger.cpp
        log/spdlog_log.cpp
        log/log4cpp_pattern.cpp
        text/win32_text.cpp
        time/win32_clock.cpp
    LIBS zel_core Threads::Threads)
# spdlog is compiled in that one file only: it costs seconds and much memory.
target_link_libraries(zel_spi_base PRIVATE zel_spdlog)

zel_add_library(zel_spi_io SOURCES io/win32_file.cpp LIBS zel_spi_base)
zel_add_library(zel_spi_http SOURCES http/wininet_xml_http_request.cpp LIBS zel_spi_base wininet)
zel_add_library(zel_spi_xml SOURCES xml/msxml_parser.cpp LIBS zel_spi_base ole32 oleaut32 uuid)

# wzcsapi.dll and wlanapi.dll are loaded at run time: either may be missing.
zel_add_library(zel_spi_wifi
    SOURCES
        wifi/ndis_bss_list.cpp
        wifi/ndisuio_wifi_adapter.cpp
        wifi/wzc_wrapper.cpp
        wifi/wlan_wifi_adapter.cpp
    LIBS zel_spi_base ole32)

zel_add_library(zel_spi
    SOURCES platform.cpp win32_platform.cpp
    LIBS zel_spi_base zel_spi_io zel_spi_http zel_spi_xml zel_spi_wifi)
