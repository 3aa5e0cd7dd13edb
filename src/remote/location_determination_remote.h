// The client of the location server: builds each request, posts it over HTTP(S) and
// hands the answer to the response parser.
//
// Result codes: 0 success; 4 the server refused the credentials (HTTP 401, 403);
// 5 communication failed (open, send, body, or any other status); 6 the answer could
// not be used (decided by the parser); 7 the proxy asked for authentication (407);
// 99 no request object could be made. No lock of its own: callers serialise use.
// Every request blocks until the transport finished or timed out.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/location_record.h"
#include "spi/http_request.h"

namespace log4cpp {
class Category;
}

namespace ZEL::API {

// The server the library asks unless told otherwise.
inline constexpr const char kDefaultServerHost[] = "api.zelapi.net";
inline constexpr const char kDefaultServerUrl[] = "https://api.zelapi.net/zel2";
inline constexpr const char kUserAgent[] = "ZEL API";

class LocationDeterminationRemote {
  public:
    using RequestFactory = std::function<std::unique_ptr<SPI::XmlHttpRequest>()>;

    // `makeRequest` makes the request object of each exchange (null: code 99).
    explicit LocationDeterminationRemote(RequestFactory makeRequest = SPI::makeXmlHttpRequest);

    // Replaces the server URL whole; request paths are appended to it as they are.
    void setServerUrl(std::string url) { serverUrl_ = std::move(url); }
    // An empty (or null) host turns the proxy off and leaves user and password as
    // they were. Otherwise the proxy is host, plus ":port" unless port is 0 or -1.
    void setProxy(const char* host, int port, const char* user, const char* password);

    int location(const ZEL_Authentication& authentication, int streetAddressLookup,
                 const ApList& aps, LocationRecord& record);
    int ipLocation(const ZEL_Authentication& authentication, int streetAddressLookup,
                   IpLocationRecord& record);
    int registerUser(const ZEL_Authentication& authentication, const ZEL_Authentication& newUser);

    const std::string& serverUrl() const { return serverUrl_; }
    const std::string& userAgent() const { return userAgent_; }
    const std::string& proxy() const { return proxy_; }
    int proxyPort() const { return proxyPort_; }
    const std::string& proxyUser() const { return proxyUser_; }
    const std::string& proxyPassword() const { return proxyPassword_; }

  private:
    // One exchange: posts `request` to serverUrl + path; on 0 `response` holds the body.
    int postRequest(const std::string& path, const std::string& request, std::string& response);
    int openRequest(SPI::XmlHttpRequest& request, const std::string& url);
    int readResponse(SPI::XmlHttpRequest& request, std::string& response);

    log4cpp::Category& category_;
    RequestFactory makeRequest_;
    std::string serverUrl_ = kDefaultServerUrl;
    std::string userAgent_ = kUserAgent;
    std::string proxy_;
    // Handed to the transport unchanged; nothing writes it, so only the port text
    // that setProxy appended to proxy_ is used.
    int proxyPort_ = 0;
    std::string proxyUser_;
    std::string proxyPassword_;
};

}  // namespace ZEL::API
