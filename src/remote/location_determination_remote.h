// The client of the location server: builds each request, posts it over HTTP(S) and
// hands the answer to the response parser.
//
// Result codes: kUnauthorized when the server refused the credentials (HTTP 401,
// 403); kServerUnavailable when communication failed (open, send, body, or any other
// status); kCannotDetermine when the answer could not be used (decided by the
// parser); kProxyUnauthorized on 407; kRequestNotCreated when the platform made no
// request object. No lock of its own: callers serialise use.
// Every request blocks until the transport finished or timed out.
// With a geolocate URL set, location and ipLocation speak the JSON geolocate
// protocol (geolocate_messages.h) to that URL instead, through the same exchange,
// proxy and time-outs; there a 404 (notFound) gives kCannotDetermine, and a scan
// with fewer than two sendable access points is not sent and gives kCannotDetermine.
// Registration always goes to the XML server.
#pragma once

#include <memory>
#include <string>

#include "core/credentials.h"
#include "core/location_record.h"
#include "core/result_code.h"
#include "spi/http_request.h"

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Remote {

// The server the library asks unless told otherwise.
inline constexpr const char kDefaultServerHost[] = "api.zelapi.net";
inline constexpr const char kDefaultServerUrl[] = "https://api.zelapi.net/zel2";
inline constexpr const char kUserAgent[] = "ZEL API";

class LocationDeterminationRemote {
  public:
    // Each exchange gets its request object from the platform.
    LocationDeterminationRemote();

    // Replaces the server URL whole; request paths are appended to it as they are.
    void setServerUrl(std::string url) { serverUrl_ = std::move(url); }
    // The full URL, with any ?key=; empty switches back to the XML server.
    void setGeolocateUrl(std::string url) { geolocateUrl_ = std::move(url); }
    // An empty (or null) host turns the proxy off and leaves user and password as
    // they were. Otherwise the proxy is host, plus ":port" unless port is 0 or -1.
    void setProxy(std::string_view host, int port, std::string_view user,
                  std::string_view password);

    Core::ResultCode location(Core::Credentials credentials, int streetAddressLookup,
                              const Core::ApList& aps, Core::LocationRecord& record);
    Core::ResultCode ipLocation(Core::Credentials credentials, int streetAddressLookup,
                                Core::IpLocationRecord& record);
    Core::ResultCode registerUser(Core::Credentials credentials, Core::Credentials newUser);

    const std::string& serverUrl() const { return serverUrl_; }
    const std::string& geolocateUrl() const { return geolocateUrl_; }
    const std::string& userAgent() const { return userAgent_; }
    const std::string& proxy() const { return proxy_; }
    int proxyPort() const { return proxyPort_; }
    const std::string& proxyUser() const { return proxyUser_; }
    const std::string& proxyPassword() const { return proxyPassword_; }

  private:
    enum class Protocol { Xml, Json };
    // One exchange: posts `request` to `url`; on 0 `response` holds the body.
    Core::ResultCode postRequest(Protocol protocol, const std::string& url,
                                 const std::string& request, std::string& response);
    int openRequest(SPI::XmlHttpRequest& request, const std::string& url);
    Core::ResultCode readResponse(Protocol protocol, SPI::XmlHttpRequest& request,
                                  std::string& response);
    Core::ResultCode geolocate(const Core::ApList& aps, Core::LocationRecord& record);
    Core::ResultCode geolocateIp(Core::IpLocationRecord& record);

    SPI::Logger& category_;
    std::string serverUrl_ = kDefaultServerUrl;
    std::string geolocateUrl_;
    std::string userAgent_ = kUserAgent;
    std::string proxy_;
    // Kept on purpose: the transport takes a separate port, but nothing writes this
    // one; the port travels as the text setProxy appended to proxy_.
    int proxyPort_ = 0;
    std::string proxyUser_;
    std::string proxyPassword_;
};

}  // namespace ZEL::Remote
