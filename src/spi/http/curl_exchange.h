// One transfer over libcurl's easy interface, and what it received. Used by
// CurlXmlHttpRequest; not part of the platform interface.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <string>

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::SPI {

// Every connect, receive and send waits at most this long (ms).
inline constexpr long kTimeoutMs = 30000;
// An answer larger than this is refused rather than held in memory.
inline constexpr size_t kMaxResponseBytes = 16 * 1024 * 1024;

using HeaderMap = std::map<std::string, std::string>;

struct ExchangeRequest {
    std::string method;  // "GET", "POST" or "HEAD"
    std::string url;     // scheme, host, port and path as cracked
    std::string proxy;   // empty: none (the environment's proxy settings are ignored)
    std::string proxyUser;
    std::string proxyPassword;
    HeaderMap headers;
    std::string body;
};

struct ExchangeResponse {
    int status = -1;
    std::string statusText;
    HeaderMap headers;
    std::string body;
};

// Runs the exchange: sends once more after an attempt that failed before any answer
// arrived (without verifying the server certificate when that was the failure) and
// maps curl's error to the transport's numbers. `abort` ends a running transfer at
// its next progress report.
int runExchange(const ExchangeRequest& request, ExchangeResponse& response,
                const std::atomic<bool>& abort, Logger& category);

// curl's error mapped to the transport's numbers (0, 10060, 10065, 10043, 1, 10061,
// 10054, else -1).
int mapCurlError(int curlCode);

}  // namespace ZEL::SPI
