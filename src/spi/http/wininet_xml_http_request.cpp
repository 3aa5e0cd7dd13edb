// WinInetXmlHttpRequest: the HTTP(S) exchange over WinInet, one session, connection
// and request handle per send. An asynchronous send runs on a thread of its own;
// abort() waits for it 30 s and then terminates it, since the exchange cannot be
// told to stop.
#include <windows.h>
// after windows.h, which defines its types
#include <wininet.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <new>
#include <vector>

#include "spi/http/wininet_xml_http_request.h"
#include "spi/log.h"
#include "spi/text.h"

namespace ZEL::SPI {
namespace {

constexpr int kOpenFailed = 22;
constexpr DWORD kTimeoutMs = 30000;
constexpr DWORD kBufferBytes = 4096;
constexpr DWORD kCrackBufferChars = 2048;
// Wine reports a self-signed certificate as an unknown CA.
constexpr DWORD kInvalidCa = 12045;
// Accept an unknown CA, a wrong usage, another name and an expired date: the
// certificate retry accepts any server certificate, deliberately.
constexpr DWORD kIgnoreCertificateErrors = 0x3300;

bool isCertificateError(DWORD error) {
    return error == ERROR_INTERNET_SEC_INVALID_CERT ||
           error == ERROR_INTERNET_SEC_CERT_DATE_INVALID ||
           error == ERROR_INTERNET_SEC_CERT_CN_INVALID || error == kInvalidCa;
}

class Handle {
  public:
    explicit Handle(HINTERNET handle = nullptr) : handle_(handle) {}
    ~Handle() {
        if (handle_ != nullptr) {
            InternetCloseHandle(handle_);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    HINTERNET get() const { return handle_; }

  private:
    HINTERNET handle_;
};

class WinInetXmlHttpRequest final : public XmlHttpRequest {
  public:
    WinInetXmlHttpRequest() : category_(getLogger("ZEL.SPI.Win32.WinInetXmlHttpRequest")) {}
    ~WinInetXmlHttpRequest() override { abort(); }
    WinInetXmlHttpRequest(const WinInetXmlHttpRequest&) = delete;
    WinInetXmlHttpRequest& operator=(const WinInetXmlHttpRequest&) = delete;

    void setCompletionCallback(CompletionCallback callback, void* context) override {
        callback_ = callback;
        context_ = context;
    }

    int open(int method, const std::string& url, const std::string& proxy, int proxyPort,
             const std::string& proxyUser, const std::string& proxyPassword, bool async) override {
        abort();
        async_ = async;
        proxy_ = toWide(proxy);
        if (proxyPort > 0) {
            char port[32];
            std::snprintf(port, sizeof port, "%d", proxyPort);
            proxy_ += L":" + toWide(port);
        }
        proxyUser_ = toWide(proxyUser);
        proxyPassword_ = toWide(proxyPassword);
        // Kept on purpose: a URL that does not crack fails the send, not the open.
        opened_ = crackUrl(method, url);
        return 0;
    }

    int open(int method, const std::string& url, bool async) override {
        abort();
        async_ = async;
        proxy_.clear();
        proxyUser_.clear();
        proxyPassword_.clear();
        if (!crackUrl(method, url)) {
            return kOpenFailed;
        }
        opened_ = true;
        return 0;
    }

    void setRequestHeader(const std::string& name, const std::string& value) override {
        requestHeaders_[name] = value;
    }

    int send(const void* data, size_t length) override {
        if (thread_ != nullptr) {
            ZEL_LOG_ERROR(category_, "a send is already running");
            return -1;
        }
        if (data == nullptr || length == 0) {
            ZEL_LOG_ERROR(category_, "empty request body");
            return -1;
        }
        const auto* bytes = static_cast<const uint8_t*>(data);
        requestBody_.assign(bytes, bytes + length);
        if (!async_) {
            return exchange();
        }
        thread_ = CreateThread(nullptr, 0, &WinInetXmlHttpRequest::run, this, 0, nullptr);
        if (thread_ == nullptr) {
            ZEL_LOG_ERROR(category_, "CreateThread failed, error %lu", GetLastError());
            return -1;
        }
        return 0;
    }

    void abort() override {
        if (thread_ != nullptr) {
            abortFlag_ = true;  // the exchange never reads it: the wait is what counts
            if (WaitForSingleObject(thread_, kTimeoutMs) != WAIT_OBJECT_0) {
                ZEL_LOG_ERROR(category_, "waiting for send thread failed, terminating");
                TerminateThread(thread_, 0);
            }
            CloseHandle(thread_);
            thread_ = nullptr;
        }
        abortFlag_ = false;
        requestHeaders_.clear();
        responseHeaders_.clear();
        requestBody_.clear();
        responseBody_.clear();
        statusText_.clear();
        status_ = -1;
        opened_ = false;
    }

    std::string getAllResponseHeaders() const override {
        std::string all;
        for (const auto& [name, value] : responseHeaders_) {
            all += name + ": " + value + "\n";
        }
        return all;
    }

    std::string getResponseHeader(const std::string& name) const override {
        auto found = responseHeaders_.find(name);
        return found == responseHeaders_.end() ? std::string() : found->second;
    }

    int responseBody(std::string_view& body) const override {
        body = std::string_view(reinterpret_cast<const char*>(responseBody_.data()),
                                responseBody_.size());
        return 0;
    }

    int status() const override { return status_; }
    std::string statusText() const override { return statusText_; }

  private:
    static DWORD WINAPI run(void* self) {
        static_cast<WinInetXmlHttpRequest*>(self)->exchange();
        return 0;
    }

    bool crackUrl(int method, const std::string& url) {
        static const wchar_t* const kMethods[] = {L"GET", L"POST", L"HEAD"};
        if (method < kGet || method > kHead) {
            ZEL_LOG_ERROR(category_, "unknown http method: %d", method);
            return false;
        }
        method_ = kMethods[method];
        std::wstring wide = toWide(url);
        std::vector<wchar_t> host(kCrackBufferChars), path(kCrackBufferChars);
        URL_COMPONENTSW parts{};
        parts.dwStructSize = sizeof parts;
        parts.lpszHostName = host.data();
        parts.dwHostNameLength = kCrackBufferChars;
        parts.lpszUrlPath = path.data();
        parts.dwUrlPathLength = kCrackBufferChars;
        if (!InternetCrackUrlW(wide.c_str(), 0, 0, &parts)) {
            ZEL_LOG_ERROR(category_, "InternetCrackUrl failed, error %lu", GetLastError());
            return false;
        }
        host_.assign(host.data(), parts.dwHostNameLength);
        path_.assign(path.data(), parts.dwUrlPathLength);
        port_ = parts.nPort;
        secure_ = parts.nScheme == INTERNET_SCHEME_HTTPS;
        return true;
    }

    // Logs "<what> failed, error <last error>" and gives false.
    bool failed(const char* what) {
        ZEL_LOG_ERROR(category_, "%s, error %lu", what, GetLastError());
        return false;
    }

    bool setDword(HINTERNET handle, DWORD option, DWORD value) {
        return InternetSetOptionW(handle, option, &value, sizeof value) != FALSE;
    }

    // Time-outs go on the connection and on the request: WinInet takes them from
    // either, and Wine ignores those of the session.
    bool setTimeouts(HINTERNET connection, HINTERNET request) {
        static const std::pair<DWORD, const char*> kOptions[] = {
            {INTERNET_OPTION_CONNECT_TIMEOUT, "failed to set INTERNET_OPTION_CONNECT_TIMEOUT"},
            {INTERNET_OPTION_CONTROL_RECEIVE_TIMEOUT,
             "failed to set INTERNET_OPTION_CONTROL_RECEIVE_TIMEOUT"},
            {INTERNET_OPTION_CONTROL_SEND_TIMEOUT,
             "failed to set INTERNET_OPTION_CONTROL_SEND_TIMEOUT"}};
        for (const auto& [option, message] : kOptions) {
            if (!setDword(connection, option, kTimeoutMs) ||
                !setDword(request, option, kTimeoutMs)) {
                return failed(message);
            }
        }
        return true;
    }

    bool setProxyCredentials(HINTERNET request) {
        if (!InternetSetOptionW(request, INTERNET_OPTION_PROXY_USERNAME,
                                const_cast<wchar_t*>(proxyUser_.c_str()),
                                static_cast<DWORD>(proxyUser_.size() + 1))) {
            return failed("failed to set INTERNET_OPTION_PROXY_USERNAME");
        }
        if (!InternetSetOptionW(request, INTERNET_OPTION_PROXY_PASSWORD,
                                const_cast<wchar_t*>(proxyPassword_.c_str()),
                                static_cast<DWORD>(proxyPassword_.size() + 1))) {
            return failed("failed to set INTERNET_OPTION_PROXY_PASSWORD");
        }
        return true;
    }

    bool addRequestHeaders(HINTERNET request) {
        if (requestHeaders_.empty()) {
            return true;
        }
        std::string block;
        for (const auto& [name, value] : requestHeaders_) {
            block += name + ": " + value + "\r\n";
        }
        std::wstring wide = toWide(block);
        if (!HttpAddRequestHeadersW(request, wide.c_str(), static_cast<DWORD>(-1),
                                    HTTP_ADDREQ_FLAG_ADD | HTTP_ADDREQ_FLAG_REPLACE)) {
            return failed("HttpAddRequestHeaders failed");
        }
        return true;
    }

    // Sends, and once more after any failure; after a certificate error the second
    // attempt accepts any certificate. Gives 0 or the mapped error.
    int sendRequest(HINTERNET request) {
        auto attempt = [&] {
            return HttpSendRequestW(request, nullptr, 0, requestBody_.data(),
                                    static_cast<DWORD>(requestBody_.size()));
        };
        if (attempt()) {
            return 0;
        }
        DWORD error = GetLastError();
        if (isCertificateError(error)) {
            DWORD flags = 0;
            DWORD size = sizeof flags;
            if (!InternetQueryOptionW(request, INTERNET_OPTION_SECURITY_FLAGS, &flags, &size)) {
                failed("failed to query INTERNET_OPTION_SECURITY_FLAGS");
            } else if (!setDword(request, INTERNET_OPTION_SECURITY_FLAGS,
                                 flags | kIgnoreCertificateErrors)) {
                failed("failed to set INTERNET_OPTION_SECURITY_FLAGS");
            }
        }
        if (attempt()) {
            return 0;
        }
        error = GetLastError();
        ZEL_LOG_ERROR(category_, "HttpSendRequest failed, error %lu", error);
        return winInetErrorResult(error);
    }

    // One HttpQueryInfoW of text, in a buffer of 4096 bytes grown to what it asks for.
    bool queryText(HINTERNET request, DWORD what, std::wstring& text) {
        std::vector<wchar_t> buffer(kBufferBytes / sizeof(wchar_t));
        DWORD size = kBufferBytes;
        BOOL done = HttpQueryInfoW(request, what, buffer.data(), &size, nullptr);
        if (!done && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
            buffer.assign(size / sizeof(wchar_t) + 1, L'\0');
            done = HttpQueryInfoW(request, what, buffer.data(), &size, nullptr);
        }
        if (!done) {
            return false;
        }
        text.assign(buffer.data(), size / sizeof(wchar_t));
        return true;
    }

    // A run of NUL-terminated lines; "name: value" lines are kept, the status line
    // and anything else without ": " skipped.
    void storeRawHeaders(const std::wstring& raw) {
        size_t start = 0;
        while (start < raw.size()) {
            size_t end = raw.find(L'\0', start);
            if (end == std::wstring::npos) {
                end = raw.size();
            }
            std::string line = toNarrow(raw.substr(start, end - start));
            auto colon = line.find(": ");
            if (colon != std::string::npos) {
                responseHeaders_[line.substr(0, colon)] = line.substr(colon + 2);
            }
            start = end + 1;
        }
    }

    int readAnswer(HINTERNET request) {
        DWORD status = 0;
        DWORD size = sizeof status;
        if (!HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status,
                            &size, nullptr)) {
            failed("failed to query HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER");
            return -1;
        }
        status_ = static_cast<int>(status);
        std::wstring text;
        if (!queryText(request, HTTP_QUERY_RAW_HEADERS, text)) {
            failed("failed to query HTTP_QUERY_RAW_HEADERS");
            return -1;
        }
        storeRawHeaders(text);
        if (!queryText(request, HTTP_QUERY_STATUS_TEXT, text)) {
            failed("failed to query HTTP_QUERY_STATUS_TEXT");
            return -1;
        }
        statusText_ = toNarrow(text.c_str());
        uint8_t buffer[kBufferBytes];
        for (;;) {
            DWORD read = 0;
            if (!InternetReadFile(request, buffer, sizeof buffer, &read)) {
                DWORD error = GetLastError();
                ZEL_LOG_ERROR(category_, "InternetReadFile failed, error %lu", error);
                return winInetErrorResult(error);
            }
            if (read == 0) {
                return 0;
            }
            responseBody_.insert(responseBody_.end(), buffer, buffer + read);
        }
    }

    int exchange() {
        int result = exchangeOnce();
        if (async_ && callback_ != nullptr) {
            callback_(result, context_);
        }
        return result;
    }

    int exchangeOnce() {
        bool proxied = !proxy_.empty();
        Handle session(InternetOpenW(L"",
                                     proxied ? INTERNET_OPEN_TYPE_PROXY : INTERNET_OPEN_TYPE_DIRECT,
                                     proxied ? proxy_.c_str() : nullptr, nullptr, 0));
        if (session.get() == nullptr) {
            return failed("InternetOpen failed"), -1;
        }
        Handle connection(InternetConnectW(session.get(), host_.c_str(),
                                           static_cast<INTERNET_PORT>(port_), L"", L"",
                                           INTERNET_SERVICE_HTTP, 0, 0));
        if (connection.get() == nullptr) {
            return failed("InternetConnect failed"), -1;
        }
        DWORD flags = INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_PRAGMA_NOCACHE |
                      (secure_ ? INTERNET_FLAG_SECURE : 0);
        Handle request(HttpOpenRequestW(connection.get(), method_, path_.c_str(), nullptr, nullptr,
                                        nullptr, flags, 0));
        if (request.get() == nullptr) {
            return failed("HttpOpenRequest failed"), -1;
        }
        if ((proxied && !setProxyCredentials(request.get())) ||
            !setTimeouts(connection.get(), request.get()) || !addRequestHeaders(request.get())) {
            return -1;
        }
        int result = sendRequest(request.get());
        return result != 0 ? result : readAnswer(request.get());
    }

    Logger& category_;
    const wchar_t* method_ = L"POST";
    std::wstring host_;
    uint16_t port_ = 0;
    std::wstring path_;
    bool secure_ = false;
    std::wstring proxy_, proxyUser_, proxyPassword_;
    CompletionCallback callback_ = nullptr;
    void* context_ = nullptr;
    bool async_ = false;
    bool opened_ = false;
    std::map<std::string, std::string> requestHeaders_, responseHeaders_;
    std::vector<uint8_t> requestBody_, responseBody_;
    int status_ = -1;
    std::string statusText_;
    HANDLE thread_ = nullptr;
    std::atomic<bool> abortFlag_{false};
};

}  // namespace

int winInetErrorResult(uint32_t error) {
    switch (error) {
        case 0:
            return 0;
        case 12002:
            return 10060;  // time-out
        case 12007:
            return 10065;  // name not resolved
        case 12008:
            return 10043;  // protocol not found
        case 12015:
            return 1;  // login failure
        case 12029:
            return 10061;  // cannot connect
        case 12030:        // connection aborted
        case 12031:
            return 10054;  // connection reset
        default:
            return -1;
    }
}

std::unique_ptr<XmlHttpRequest> newWinInetXmlHttpRequest() {
    return std::unique_ptr<XmlHttpRequest>(new (std::nothrow) WinInetXmlHttpRequest());
}

}  // namespace ZEL::SPI
