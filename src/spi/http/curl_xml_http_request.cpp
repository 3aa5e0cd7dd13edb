// CurlXmlHttpRequest: the HTTP(S) exchange over libcurl's easy interface.
//
// The URL is cracked with curl's URL API into scheme, host, port and path (only
// http and https are accepted). An asynchronous send runs on a std::thread; a thread
// cannot be ended safely from outside, so abort() raises a flag that the transfer's
// progress callback reads, and waits for the thread to finish.
#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "spi/http/curl_exchange.h"
#include "spi/http/curl_xml_http_request.h"
#include "spi/log.h"

namespace ZEL::SPI {
namespace {

constexpr int kOpenFailed = 22;

using UrlHandle = std::unique_ptr<CURLU, void (*)(CURLU*)>;

// A part of a parsed URL, or empty.
std::string urlPart(CURLU* url, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK || text == nullptr) {
        return {};
    }
    std::string value(text);
    curl_free(text);
    return value;
}

class CurlXmlHttpRequest final : public XmlHttpRequest {
  public:
    CurlXmlHttpRequest() : category_(getLogger("ZEL.SPI.HTTP.CurlXmlHttpRequest")) {}
    ~CurlXmlHttpRequest() override { abort(); }

    void setCompletionCallback(CompletionCallback callback, void* context) override {
        callback_ = callback;
        context_ = context;
    }
    int open(int method, const std::string& url, const std::string& proxy, int proxyPort,
             const std::string& proxyUser, const std::string& proxyPassword, bool async) override;
    int open(int method, const std::string& url, bool async) override;
    void setRequestHeader(const std::string& name, const std::string& value) override {
        request_.headers[name] = value;
    }
    int send(const void* data, size_t length) override;
    void abort() override;
    std::string getAllResponseHeaders() const override;
    std::string getResponseHeader(const std::string& name) const override {
        auto found = response_.headers.find(name);
        return found == response_.headers.end() ? std::string() : found->second;
    }
    int responseBody(std::string_view& body) const override {
        body = response_.body;
        return 0;
    }
    int status() const override { return response_.status; }
    std::string statusText() const override { return response_.statusText; }

  private:
    bool crackUrl(int method, const std::string& url);
    int exchange();

    Logger& category_;
    ExchangeRequest request_;
    ExchangeResponse response_;
    bool async_ = false;
    bool opened_ = false;
    bool cracked_ = false;
    CompletionCallback callback_ = nullptr;
    void* context_ = nullptr;
    std::thread sendThread_;
    std::atomic<bool> abortFlag_{false};
};

bool CurlXmlHttpRequest::crackUrl(int method, const std::string& url) {
    static const char* const kMethods[] = {"GET", "POST", "HEAD"};
    if (method < kGet || method > kHead) {
        ZEL_LOG_ERROR(category_, "unknown http method: %d", method);
        return false;
    }
    request_.method = kMethods[method];
    UrlHandle parsed(curl_url(), curl_url_cleanup);
    CURLUcode error =
        parsed ? curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) : CURLUE_OUT_OF_MEMORY;
    std::string scheme = error == CURLUE_OK ? urlPart(parsed.get(), CURLUPART_SCHEME) : "";
    std::string host = error == CURLUE_OK ? urlPart(parsed.get(), CURLUPART_HOST) : "";
    if (error == CURLUE_OK && ((scheme != "http" && scheme != "https") || host.empty())) {
        error = CURLUE_UNSUPPORTED_SCHEME;
    }
    if (error != CURLUE_OK) {
        ZEL_LOG_ERROR(category_, "curl_url_set failed, error %u", static_cast<unsigned>(error));
        return false;
    }
    std::string port = urlPart(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    std::string path = urlPart(parsed.get(), CURLUPART_PATH);
    std::string query = urlPart(parsed.get(), CURLUPART_QUERY);
    request_.url = scheme + "://" + host + ":" + port + path + (query.empty() ? "" : "?" + query);
    return true;
}

int CurlXmlHttpRequest::open(int method, const std::string& url, const std::string& proxy,
                             int proxyPort, const std::string& proxyUser,
                             const std::string& proxyPassword, bool async) {
    abort();
    async_ = async;
    request_.proxy = proxy;
    if (proxyPort > 0) {
        char port[32];
        std::snprintf(port, sizeof port, "%d", proxyPort);
        request_.proxy += ':';
        request_.proxy += port;
    }
    request_.proxyUser = proxyUser;
    request_.proxyPassword = proxyPassword;
    cracked_ = crackUrl(method, url);
    opened_ = true;  // a URL that failed to crack fails at the send
    return 0;
}

int CurlXmlHttpRequest::open(int method, const std::string& url, bool async) {
    abort();
    async_ = async;
    request_.proxy.clear();
    request_.proxyUser.clear();
    request_.proxyPassword.clear();
    cracked_ = crackUrl(method, url);
    opened_ = cracked_;
    return cracked_ ? 0 : kOpenFailed;
}

int CurlXmlHttpRequest::exchange() {
    int result = -1;
    if (!opened_ || !cracked_) {
        ZEL_LOG_ERROR(category_, "connect failed, no usable url");
    } else {
        result = runExchange(request_, response_, abortFlag_, category_);
    }
    if (async_ && callback_) {
        callback_(result, context_);
    }
    return result;
}

int CurlXmlHttpRequest::send(const void* data, size_t length) {
    if (sendThread_.joinable()) {
        ZEL_LOG_ERROR(category_, "a send is already running");
        return -1;
    }
    if (data == nullptr || length == 0) {
        ZEL_LOG_ERROR(category_, "empty request body");
        return -1;
    }
    request_.body.assign(static_cast<const char*>(data), length);
    if (!async_) {
        return exchange();
    }
    try {
        sendThread_ = std::thread([this] { exchange(); });
    } catch (const std::system_error& error) {
        ZEL_LOG_ERROR(category_, "starting the send thread failed, error %d", error.code().value());
        return -1;
    }
    return 0;
}

void CurlXmlHttpRequest::abort() {
    if (sendThread_.joinable()) {
        abortFlag_ = true;
        sendThread_.join();
    }
    abortFlag_ = false;
    request_.headers.clear();
    request_.body.clear();
    response_ = ExchangeResponse{};
    opened_ = false;
}

std::string CurlXmlHttpRequest::getAllResponseHeaders() const {
    std::string all;
    for (const auto& [name, value] : response_.headers) {
        all += name + ": " + value + "\n";
    }
    return all;
}

}  // namespace

std::unique_ptr<XmlHttpRequest> newCurlXmlHttpRequest() {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    if (!initialised) {
        ZEL_LOG_ERROR(getLogger("ZEL.SPI.HTTP.CurlXmlHttpRequest"), "curl_global_init failed");
        return nullptr;
    }
    return std::unique_ptr<XmlHttpRequest>(new (std::nothrow) CurlXmlHttpRequest());
}

}  // namespace ZEL::SPI
