#include "remote/location_determination_remote.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "remote/geolocate_messages.h"
#include "remote/request_messages.h"
#include "remote/response_parser.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Remote {

using Core::ResultCode;

LocationDeterminationRemote::LocationDeterminationRemote()
    : category_(SPI::getLogger("ZEL.API.LocationDeterminationRemote")) {}

void LocationDeterminationRemote::setProxy(std::string_view host, int port, std::string_view user,
                                           std::string_view password) {
    proxy_ = host;
    if (proxy_.empty()) {
        return;  // an empty host clears the host only
    }
    if (port != 0 && port != -1) {
        char text[128];
        std::snprintf(text, sizeof text, "%d", port);
        proxy_ += ':';
        proxy_ += text;
    }
    proxyUser_ = user;
    proxyPassword_ = password;
}

int LocationDeterminationRemote::openRequest(SPI::XmlHttpRequest& request, const std::string& url) {
    if (!proxy_.empty()) {
        return request.open(SPI::XmlHttpRequest::kPost, url, proxy_, proxyPort_, proxyUser_,
                            proxyPassword_, false);
    }
    return request.open(SPI::XmlHttpRequest::kPost, url, false);
}

ResultCode LocationDeterminationRemote::readResponse(Protocol protocol,
                                                     SPI::XmlHttpRequest& request,
                                                     std::string& response) {
    std::string statusText = request.statusText();
    int status = request.status();
    ZEL_LOG_INFO(category_, "status code: %d status text: %s", status, statusText.c_str());
    switch (status) {
        case 200:
            break;
        case 401:
        case 403:
            return ResultCode::kUnauthorized;
        case 407:
            return ResultCode::kProxyUnauthorized;
        case 404:  // the geolocate protocol's notFound: no position, keep scanning
            return protocol == Protocol::Json ? ResultCode::kCannotDetermine
                                              : ResultCode::kServerUnavailable;
        default:
            return ResultCode::kServerUnavailable;
    }
    ZEL_LOG_DEBUG(category_, "about to get response text");
    std::string_view body;
    if (int error = request.responseBody(body); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't get response text, error %d", error);
        return ResultCode::kServerUnavailable;
    }
    response.assign(body);
    ZEL_LOG_INFO(category_, "received response: %s", response.c_str());
    return ResultCode::kOk;
}

ResultCode LocationDeterminationRemote::postRequest(Protocol protocol, const std::string& url,
                                                    const std::string& request,
                                                    std::string& response) {
    ZEL_LOG_DEBUG(category_, "initializing request object");
    std::unique_ptr<SPI::XmlHttpRequest> exchange = SPI::platform().newHttpRequest();
    if (!exchange) {
        ZEL_LOG_FATAL(category_, "couldn't create new instance of XmlHttpRequest");
        return ResultCode::kRequestNotCreated;
    }
    if (int error = openRequest(*exchange, url); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't open connection, error %d", error);
        return ResultCode::kServerUnavailable;
    }
    exchange->setRequestHeader("Content-Type",
                               protocol == Protocol::Json ? "application/json" : "text/xml");
    exchange->setRequestHeader("User-Agent", userAgent_);
    ZEL_LOG_INFO(category_, "about to send request: %s", request.c_str());
    if (int error = exchange->send(request.data(), request.size()); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't send request, error %d", error);
        return ResultCode::kServerUnavailable;
    }
    return readResponse(protocol, *exchange, response);
}

ResultCode LocationDeterminationRemote::registerUser(Core::Credentials credentials,
                                                     Core::Credentials newUser) {
    std::string request = makeRegistrationRequest(credentials, newUser);
    ZEL_LOG_DEBUG(category_, "about to register a user on server");
    std::string response;
    ResultCode code = postRequest(Protocol::Xml, serverUrl_ + "/registration", request, response);
    ZEL_LOG_INFO(category_, "registration request result: %d", Core::toInt(code));
    if (code != ResultCode::kOk) {
        return code;
    }
    ZEL_LOG_DEBUG(category_, "parsing registration response");
    code = parseRegistrationResponse(response);
    ZEL_LOG_DEBUG(category_, "returning with code %d", Core::toInt(code));
    return code;
}

ResultCode LocationDeterminationRemote::ipLocation(Core::Credentials credentials,
                                                   int streetAddressLookup,
                                                   Core::IpLocationRecord& record) {
    if (!geolocateUrl_.empty()) {
        return geolocateIp(record);
    }
    std::string request = makeIPLocationRequest(credentials, streetAddressLookup);
    ZEL_LOG_DEBUG(category_, "about to get ip-location from server");
    std::string response;
    ResultCode code = postRequest(Protocol::Xml, serverUrl_ + "/ip-location", request, response);
    ZEL_LOG_DEBUG(category_, "ip-location request result: %d", Core::toInt(code));
    if (code != ResultCode::kOk) {
        return code;
    }
    ZEL_LOG_DEBUG(category_, "parsing ip-location response");
    code = parseIPLocationResponse(response, streetAddressLookup, record);
    ZEL_LOG_DEBUG(category_, "returning with code %d", Core::toInt(code));
    return code;
}

ResultCode LocationDeterminationRemote::location(Core::Credentials credentials,
                                                 int streetAddressLookup, const Core::ApList& aps,
                                                 Core::LocationRecord& record) {
    if (!geolocateUrl_.empty()) {
        return geolocate(aps, record);
    }
    std::string request = makeLocationRequest(credentials, streetAddressLookup, aps);
    std::string response;
    ResultCode code = postRequest(Protocol::Xml, serverUrl_ + "/location", request, response);
    ZEL_LOG_DEBUG(category_, "location request result: %d", Core::toInt(code));
    if (code != ResultCode::kOk) {
        return code;
    }
    record = Core::LocationRecord{};
    ZEL_LOG_DEBUG(category_, "parsing location response");
    code = parseLocationResponse(response, streetAddressLookup, record);
    ZEL_LOG_DEBUG(category_, "returning with code %d", Core::toInt(code));
    return code;
}

ResultCode LocationDeterminationRemote::geolocate(const Core::ApList& aps,
                                                  Core::LocationRecord& record) {
    const Core::ApList sendable = sendableAccessPoints(aps);
    if (sendable.size() < 2) {
        ZEL_LOG_INFO(category_, "%u access points may be sent, fewer than 2: no geolocate request",
                     static_cast<unsigned>(sendable.size()));
        return ResultCode::kCannotDetermine;
    }
    std::string response;
    ResultCode code = postRequest(Protocol::Json, geolocateUrl_,
                                  makeGeolocateRequest(sendable, SPI::currentTime()), response);
    if (code != ResultCode::kOk) {
        return code;
    }
    record = Core::LocationRecord{};
    const auto sent = static_cast<uint16_t>(std::min<size_t>(sendable.size(), UINT16_MAX));
    return parseGeolocateAnswer(response, sent, record);
}

ResultCode LocationDeterminationRemote::geolocateIp(Core::IpLocationRecord& record) {
    std::string response;
    ResultCode code =
        postRequest(Protocol::Json, geolocateUrl_, makeIpGeolocateRequest(), response);
    return code != ResultCode::kOk ? code : parseIpGeolocateAnswer(response, record);
}

}  // namespace ZEL::Remote
