#include "spi/http/curl_exchange.h"

#include <curl/curl.h>

#include <strings.h>

#include <memory>

#include "spi/log.h"

namespace ZEL::SPI {
namespace {

using EasyHandle = std::unique_ptr<CURL, void (*)(CURL*)>;
using HeaderList = std::unique_ptr<curl_slist, void (*)(curl_slist*)>;

// What one attempt collects; reset before each attempt.
struct Transfer {
    ExchangeResponse* response;
    const std::atomic<bool>* abort;
    CURL* curl;
    // Bytes moved so far and when (curl's elapsed time, µs) they last changed.
    curl_off_t moved = 0;
    curl_off_t lastMoveUs = 0;
    bool stalled = false;
    bool headComplete = false;  // the last response's head has ended
    bool tooLarge = false;
};

// A status line starts a new response (a proxy's CONNECT answer, an interim 100):
// only the last response's headers and status text are kept.
void takeHeaderLine(Transfer& transfer, std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    ExchangeResponse& response = *transfer.response;
    if (line.empty()) {
        transfer.headComplete = true;
        return;
    }
    if (line.rfind("HTTP/", 0) == 0) {
        transfer.headComplete = false;
        response.headers.clear();
        size_t code = line.find(' ');
        size_t text = code == std::string::npos ? code : line.find(' ', code + 1);
        response.statusText = text == std::string::npos ? "" : line.substr(text + 1);
        return;
    }
    size_t separator = line.find(": ");
    if (separator != std::string::npos) {
        response.headers[line.substr(0, separator)] = line.substr(separator + 2);
    }
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    takeHeaderLine(*static_cast<Transfer*>(user), std::string(data, size * count));
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    std::string& body = transfer.response->body;
    if (body.size() + size * count > kMaxResponseBytes) {
        transfer.tooLarge = true;
        return 0;  // ends the transfer with CURLE_WRITE_ERROR
    }
    body.append(data, size * count);
    return size * count;
}

// Ends the transfer when the abort flag is up, or when no byte moved either way for
// the whole time-out: curl has no receive or send time-out of its own.
int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto& transfer = *static_cast<Transfer*>(user);
    if (transfer.abort->load()) {
        return 1;
    }
    curl_off_t elapsedUs = 0;
    curl_easy_getinfo(transfer.curl, CURLINFO_TOTAL_TIME_T, &elapsedUs);
    if (downloaded + uploaded != transfer.moved) {
        transfer.moved = downloaded + uploaded;
        transfer.lastMoveUs = elapsedUs;
    } else if (elapsedUs - transfer.lastMoveUs >= kTimeoutMs * 1000) {
        transfer.stalled = true;
        return 1;
    }
    return 0;
}

// The caller's headers in map order; curl's own Accept, Expect and Content-Type are
// suppressed unless the caller set them, so only the caller's headers go out.
HeaderList makeHeaderList(const HeaderMap& headers) {
    curl_slist* list = nullptr;
    auto add = [&list](const std::string& line) {
        if (curl_slist* grown = curl_slist_append(list, line.c_str())) {
            list = grown;
        }
    };
    for (const auto& [name, value] : headers) {
        add(name + ": " + value);
    }
    for (const char* suppressed : {"Accept", "Expect", "Content-Type"}) {
        bool set = false;
        for (const auto& entry : headers) {
            set = set || strcasecmp(entry.first.c_str(), suppressed) == 0;
        }
        if (!set) {
            add(std::string(suppressed) + ":");
        }
    }
    return HeaderList(list, curl_slist_free_all);
}

void setMethod(CURL* curl, const ExchangeRequest& request) {
    if (request.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        return;
    }
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    if (request.method != "POST") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
}

void setProxy(CURL* curl, const ExchangeRequest& request) {
    // An empty proxy also keeps curl from reading proxy settings from the environment.
    curl_easy_setopt(curl, CURLOPT_PROXY, request.proxy.c_str());
    if (request.proxy.empty()) {
        return;
    }
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
    if (!request.proxyUser.empty() || !request.proxyPassword.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, request.proxyUser.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, request.proxyPassword.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
    }
}

void setTimeouts(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kTimeoutMs);
}

void configure(CURL* curl, const ExchangeRequest& request, curl_slist* headers, Transfer& transfer,
               char* errorText) {
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    setMethod(curl, request);
    setProxy(curl, request);
    setTimeouts(curl);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
}

bool isCertificateError(CURLcode code) {
    return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE;
}

// A proxy that refuses a CONNECT ends curl's transfer with an error; its answer is
// still the exchange's answer (407 asks for proxy credentials).
bool refusedTunnel(CURL* curl) {
    long connectCode = 0;
    curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &connectCode);
    return connectCode >= 300;
}

// Whether an answer (from the server, or a proxy refusing the tunnel) began to
// arrive: such an exchange is not sent again.
bool answerBegan(CURL* curl) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    return status != 0 || refusedTunnel(curl);
}

CURLcode attempt(CURL* curl, Transfer& transfer) {
    *transfer.response = ExchangeResponse{};
    transfer.headComplete = false;
    transfer.tooLarge = false;
    transfer.moved = 0;
    transfer.lastMoveUs = 0;
    transfer.stalled = false;
    CURLcode code = curl_easy_perform(curl);
    return transfer.stalled ? CURLE_OPERATION_TIMEDOUT : code;
}

// The exchange's result once an answer began. A proxy that refused the tunnel, and
// an error answer whose connection dropped after its head (a proxy that answers 407
// and resets the connection before reading the body), are answers like any other:
// only their status and headers matter.
int finish(CURL* curl, CURLcode code, Transfer& transfer, const char* errorText, Logger& category) {
    ExchangeResponse& response = *transfer.response;
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (code != CURLE_OK && refusedTunnel(curl)) {
        curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &status);
        response.body.clear();
    } else if (code != CURLE_OK && transfer.headComplete && status >= 300) {
        ZEL_LOG_DEBUG(category, "error answer %ld cut off: %s", status, errorText);
    } else if (code != CURLE_OK) {
        ZEL_LOG_ERROR(category, "reading the response failed, error %u: %s",
                      static_cast<unsigned>(code),
                      transfer.tooLarge ? "response too large" : errorText);
        return mapCurlError(code);
    }
    response.status = status > 0 ? static_cast<int>(status) : -1;
    return 0;
}

}  // namespace

int mapCurlError(int curlCode) {
    switch (curlCode) {
        case CURLE_OK:
            return 0;
        case CURLE_OPERATION_TIMEDOUT:
            return 10060;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return 10065;
        case CURLE_UNSUPPORTED_PROTOCOL:
            return 10043;
        case CURLE_LOGIN_DENIED:
            return 1;
        case CURLE_COULDNT_CONNECT:
            return 10061;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return 10054;
        default:
            return -1;
    }
}

int runExchange(const ExchangeRequest& request, ExchangeResponse& response,
                const std::atomic<bool>& abort, Logger& category) {
    EasyHandle curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        ZEL_LOG_ERROR(category, "curl_easy_init failed");
        return -1;
    }
    HeaderList headers = makeHeaderList(request.headers);
    Transfer transfer{&response, &abort, curl.get()};
    char errorText[CURL_ERROR_SIZE] = "";
    configure(curl.get(), request, headers.get(), transfer, errorText);

    CURLcode code = attempt(curl.get(), transfer);
    if (code != CURLE_OK && !answerBegan(curl.get()) && !abort.load()) {
        if (isCertificateError(code)) {
            // Accepted by design: an unknown, expired or misnamed certificate.
            ZEL_LOG_DEBUG(category, "server certificate not verified (%s), sending again",
                          errorText);
            curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
        }
        errorText[0] = '\0';
        code = attempt(curl.get(), transfer);
        if (code != CURLE_OK && !answerBegan(curl.get())) {
            ZEL_LOG_ERROR(category, "curl_easy_perform failed, error %u: %s",
                          static_cast<unsigned>(code), errorText);
            return mapCurlError(code);
        }
    }
    return finish(curl.get(), code, transfer, errorText, category);
}

}  // namespace ZEL::SPI
