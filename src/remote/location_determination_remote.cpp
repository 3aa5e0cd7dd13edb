#include "remote/location_determination_remote.h"

#include <cstdio>

#include "remote/request_messages.h"
#include "remote/response_parser.h"
#include "spi/log.h"

namespace ZEL::API {

LocationDeterminationRemote::LocationDeterminationRemote(RequestFactory makeRequest)
    : category_(SPI::getCategory("ZEL.API.LocationDeterminationRemote")),
      makeRequest_(std::move(makeRequest)) {}

void LocationDeterminationRemote::setProxy(const char* host, int port, const char* user,
                                           const char* password) {
    proxy_ = host ? host : "";
    if (proxy_.empty()) {
        return;  // an empty host clears the host only
    }
    if (port != 0 && port != -1) {
        char text[128];
        std::snprintf(text, sizeof text, "%d", port);
        proxy_ += ':';
        proxy_ += text;
    }
    proxyUser_ = user ? user : "";
    proxyPassword_ = password ? password : "";
}

int LocationDeterminationRemote::openRequest(SPI::XmlHttpRequest& request, const std::string& url) {
    if (!proxy_.empty()) {
        return request.open(SPI::XmlHttpRequest::kPost, url, proxy_, proxyPort_, proxyUser_,
                            proxyPassword_, false);
    }
    return request.open(SPI::XmlHttpRequest::kPost, url, false);
}

int LocationDeterminationRemote::readResponse(SPI::XmlHttpRequest& request, std::string& response) {
    std::string statusText = request.statusText();
    int status = request.status();
    ZEL_LOG_INFO(category_, "status code: %d status text: %s", status, statusText.c_str());
    switch (status) {
        case 200:
            break;
        case 401:
        case 403:
            return ZEL_ERROR_UNAUTHORIZED;
        case 407:
            return ZEL_ERROR_PROXY_UNAUTHORIZED;
        default:
            return ZEL_ERROR_SERVER_UNAVAILABLE;
    }
    ZEL_LOG_DEBUG(category_, "about to get response text");
    std::string_view body;
    if (int error = request.responseBody(body); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't get response text, error %d", error);
        return ZEL_ERROR_SERVER_UNAVAILABLE;
    }
    response.assign(body);
    ZEL_LOG_INFO(category_, "received response: %s", response.c_str());
    return ZEL_OK;
}

int LocationDeterminationRemote::postRequest(const std::string& path, const std::string& request,
                                             std::string& response) {
    ZEL_LOG_DEBUG(category_, "initializing request object");
    std::unique_ptr<SPI::XmlHttpRequest> exchange = makeRequest_ ? makeRequest_() : nullptr;
    if (!exchange) {
        ZEL_LOG_FATAL(category_, "couldn't create new instance of XmlHttpRequest");
        return ZEL_ERROR_NOT_READY;
    }
    if (int error = openRequest(*exchange, serverUrl_ + path); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't open connection, error %d", error);
        return ZEL_ERROR_SERVER_UNAVAILABLE;
    }
    exchange->setRequestHeader("Content-Type", "text/xml");
    exchange->setRequestHeader("User-Agent", userAgent_);
    ZEL_LOG_INFO(category_, "about to send request: %s", request.c_str());
    if (int error = exchange->send(request.data(), request.size()); error != 0) {
        ZEL_LOG_ERROR(category_, "couldn't send request, error %d", error);
        return ZEL_ERROR_SERVER_UNAVAILABLE;
    }
    return readResponse(*exchange, response);
}

int LocationDeterminationRemote::registerUser(const ZEL_Authentication& authentication,
                                              const ZEL_Authentication& newUser) {
    std::string request = makeRegistrationRequest(authentication, newUser);
    ZEL_LOG_DEBUG(category_, "about to register a user on server");
    std::string response;
    int code = postRequest("/registration", request, response);
    ZEL_LOG_INFO(category_, "registration request result: %d", code);
    if (code != ZEL_OK) {
        return code;
    }
    ZEL_LOG_DEBUG(category_, "parsing registration response");
    code = parseRegistrationResponse(response);
    ZEL_LOG_DEBUG(category_, "returning with code %d", code);
    return code;
}

int LocationDeterminationRemote::ipLocation(const ZEL_Authentication& authentication,
                                            int streetAddressLookup, IpLocationRecord& record) {
    std::string request = makeIPLocationRequest(authentication, streetAddressLookup);
    ZEL_LOG_DEBUG(category_, "about to get ip-location from server");
    std::string response;
    int code = postRequest("/ip-location", request, response);
    ZEL_LOG_DEBUG(category_, "ip-location request result: %d", code);
    if (code != ZEL_OK) {
        return code;
    }
    ZEL_LOG_DEBUG(category_, "parsing ip-location response");
    code = parseIPLocationResponse(response, streetAddressLookup, record);
    ZEL_LOG_DEBUG(category_, "returning with code %d", code);
    return code;
}

int LocationDeterminationRemote::location(const ZEL_Authentication& authentication,
                                          int streetAddressLookup, const ApList& aps,
                                          LocationRecord& record) {
    std::string request = makeLocationRequest(authentication, streetAddressLookup, aps);
    std::string response;
    int code = postRequest("/location", request, response);
    ZEL_LOG_DEBUG(category_, "location request result: %d", code);
    if (code != ZEL_OK) {
        return code;
    }
    record = LocationRecord{};
    ZEL_LOG_DEBUG(category_, "parsing location response");
    code = parseLocationResponse(response, streetAddressLookup, record);
    ZEL_LOG_DEBUG(category_, "returning with code %d", code);
    return code;
}

}  // namespace ZEL::API
