#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "spi/http/curl_xml_http_request.h"
#include "spi/http_request.h"
#include "support/log_capture.h"
#include "support/raw_http_server.h"
#include "support/test_http_server.h"

namespace ZEL::SPI {
namespace {

using Testing::RawHttpServer;
using Testing::ScriptedResponse;
using Testing::TestHttpServer;

const char kCategory[] = "ZEL.SPI.HTTP.CurlXmlHttpRequest";

struct Exchange {
    std::unique_ptr<XmlHttpRequest> request;
    int result = -2;
};

Exchange post(const std::string& url, const std::string& body = "<a/>") {
    Exchange exchange{newCurlXmlHttpRequest()};
    EXPECT_NE(exchange.request, nullptr);
    EXPECT_EQ(exchange.request->open(XmlHttpRequest::kPost, url, false), 0);
    exchange.result = exchange.request->send(body.data(), body.size());
    return exchange;
}

std::string bodyOf(const XmlHttpRequest& request) {
    std::string_view body;
    EXPECT_EQ(request.responseBody(body), 0);
    return std::string(body);
}

TEST(CurlXmlHttpRequest, SendsHeadersInNameOrderWithTheLaterValue) {
    auto server = RawHttpServer::replying("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    ASSERT_NE(server, nullptr);
    auto request = newCurlXmlHttpRequest();
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, server->url() + "/zel2/x?q=1#frag", false), 0);
    request->setRequestHeader("Zeta", "1");
    request->setRequestHeader("Alpha", "first");
    request->setRequestHeader("Alpha", "second");
    std::string body(5000, 'b');  // past the size where clients like to ask for 100-continue
    ASSERT_EQ(request->send(body.data(), body.size()), 0);

    ASSERT_EQ(server->requests().size(), 1u);
    std::string raw = server->requests()[0];
    EXPECT_TRUE(raw.starts_with("POST /zel2/x?q=1 HTTP/1.1\r\n")) << raw;
    size_t alpha = raw.find("\r\nAlpha: second\r\n");
    size_t zeta = raw.find("\r\nZeta: 1\r\n");
    ASSERT_NE(alpha, std::string::npos) << raw;
    ASSERT_NE(zeta, std::string::npos) << raw;
    EXPECT_LT(alpha, zeta);
    EXPECT_EQ(raw.find("first"), std::string::npos);
    for (const char* unwanted :
         {"\r\nExpect:", "\r\nAccept:", "\r\nContent-Type:", "\r\nUser-Agent:", "\r\nProxy-"}) {
        EXPECT_EQ(raw.find(unwanted), std::string::npos) << unwanted;
    }
    EXPECT_TRUE(raw.ends_with("\r\n\r\n" + body));
    EXPECT_EQ(bodyOf(*request), "ok");
}

TEST(CurlXmlHttpRequest, ReadsStatusHeadersAndBody) {
    auto server = RawHttpServer::replying(
        "HTTP/1.1 200 Fine By Me\r\nX-Dup: first\r\nB-Header: a: b\r\nX-Dup: second\r\n"
        "NoSpace:value\r\nContent-Length: 5\r\n\r\nhello");
    ASSERT_NE(server, nullptr);
    Exchange exchange = post(server->url() + "/");
    ASSERT_EQ(exchange.result, 0);
    const XmlHttpRequest& request = *exchange.request;
    EXPECT_EQ(request.status(), 200);
    EXPECT_EQ(request.statusText(), "Fine By Me");
    EXPECT_EQ(request.getResponseHeader("X-Dup"), "second");
    EXPECT_EQ(request.getResponseHeader("B-Header"), "a: b");  // split at the first ": "
    EXPECT_EQ(request.getResponseHeader("NoSpace"), "");       // no ": ", no header
    EXPECT_EQ(request.getAllResponseHeaders(),
              "B-Header: a: b\nContent-Length: 5\nX-Dup: second\n");
    EXPECT_EQ(bodyOf(request), "hello");
}

TEST(CurlXmlHttpRequest, BodyIsReadToTheEnd) {
    std::string big(300000, 'x');
    big.back() = 'y';
    // No length given: the body runs until the server closes.
    auto server = RawHttpServer::replying("HTTP/1.0 200 OK\r\n\r\n" + big);
    ASSERT_NE(server, nullptr);
    Exchange exchange = post(server->url() + "/");
    ASSERT_EQ(exchange.result, 0);
    EXPECT_EQ(bodyOf(*exchange.request), big);

    auto empty = RawHttpServer::replying("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    ASSERT_NE(empty, nullptr);
    Exchange none = post(empty->url() + "/");
    EXPECT_EQ(none.result, 0);
    EXPECT_EQ(none.request->status(), 200);
    EXPECT_EQ(bodyOf(*none.request), "");
}

TEST(CurlXmlHttpRequest, ErrorStatusesAreAnswersNotFailures) {
    auto server = TestHttpServer::start();
    ASSERT_NE(server, nullptr);
    for (int status : {401, 403, 407, 500, 302}) {
        std::string path = "/s" + std::to_string(status);
        server->respond(path, ScriptedResponse{status, {{"Location", "/elsewhere"}}, "why"});
        Exchange exchange = post(server->url() + path);
        EXPECT_EQ(exchange.result, 0) << status;
        EXPECT_EQ(exchange.request->status(), status);
        EXPECT_FALSE(exchange.request->statusText().empty()) << status;
        EXPECT_EQ(bodyOf(*exchange.request), "why");  // redirects are not followed
    }
    EXPECT_EQ(server->requests().size(), 5u);
}

TEST(CurlXmlHttpRequest, AnswerCutOffMidBodyIsNotResent) {
    auto server = RawHttpServer::replying("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial");
    ASSERT_NE(server, nullptr);
    Testing::LogCapture log(kCategory);
    Exchange exchange = post(server->url() + "/");
    EXPECT_EQ(exchange.result, 10054);
    EXPECT_EQ(server->connections(), 1);
    EXPECT_FALSE(log.messages().empty());

    // An error answer cut off after its head is still that answer.
    auto refusing =
        RawHttpServer::replying("HTTP/1.1 407 Who Are You\r\nContent-Length: 100\r\n\r\nbye");
    ASSERT_NE(refusing, nullptr);
    Exchange refused = post(refusing->url() + "/");
    EXPECT_EQ(refused.result, 0);
    EXPECT_EQ(refused.request->status(), 407);
    EXPECT_EQ(refused.request->statusText(), "Who Are You");
    EXPECT_EQ(refusing->connections(), 1);
}

TEST(CurlXmlHttpRequest, FailedSendIsRetriedOnceThenMapped) {
    struct Case {
        std::string reply;
        int expected;
    };
    for (const Case& test :
         {Case{"", 10054}, Case{"HTTP/1.1 20", 10054}, Case{"SSH-2.0-nonsense\r\n\r\n", 10043}}) {
        auto server = RawHttpServer::replying(test.reply);
        ASSERT_NE(server, nullptr);
        Testing::LogCapture log(kCategory);
        Exchange exchange = post(server->url() + "/");
        EXPECT_EQ(exchange.result, test.expected) << test.reply;
        EXPECT_EQ(server->connections(), 2) << test.reply;
        EXPECT_EQ(exchange.request->status(), -1);
        ASSERT_FALSE(log.messages().empty());
        EXPECT_TRUE(log.messages().back().text.starts_with("curl_easy_perform failed, error"));
    }
}

TEST(CurlXmlHttpRequest, UnreachableServersMapToSocketErrors) {
    int port = Testing::freeLoopbackPort();
    EXPECT_EQ(post("http://127.0.0.1:" + std::to_string(port) + "/").result, 10061);
    EXPECT_EQ(post("http://no-such-host.invalid/").result, 10065);
}

TEST(CurlXmlHttpRequest, OversizedAnswerIsRefused) {
    std::string huge(17 * 1024 * 1024, 'z');
    auto server = RawHttpServer::replying(
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(huge.size()) + "\r\n\r\n" + huge);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(post(server->url() + "/").result, -1);
}

TEST(CurlXmlHttpRequest, OpenRejectsBadMethodsAndUrls) {
    Testing::LogCapture log(kCategory);
    auto request = newCurlXmlHttpRequest();
    EXPECT_EQ(request->open(7, "http://127.0.0.1/", false), 22);
    EXPECT_TRUE(log.contains("unknown http method: 7"));
    for (const char* url :
         {"", "not a url", "ftp://127.0.0.1/file", "file:///etc/passwd", "http://"}) {
        EXPECT_EQ(request->open(XmlHttpRequest::kPost, url, false), 22) << url;
    }
    // The proxy-aware open always succeeds; the send fails instead.
    EXPECT_EQ(request->open(XmlHttpRequest::kPost, "not a url", "127.0.0.1", 1, "", "", false), 0);
    EXPECT_EQ(request->send("x", 1), -1);
    // An empty body is a caller error.
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, "http://127.0.0.1:1/", false), 0);
    EXPECT_EQ(request->send("", 0), -1);
}

TEST(CurlXmlHttpRequest, ProxyGetsAbsoluteRequestPortAndCredentials) {
    auto proxy = RawHttpServer::replying("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    ASSERT_NE(proxy, nullptr);
    auto request = newCurlXmlHttpRequest();
    for (int port : {0, -1}) {
        // No port appended: the port stays in the proxy text.
        ASSERT_EQ(request->open(XmlHttpRequest::kPost, "http://server.invalid:8123/zel2/x",
                                "127.0.0.1:" + std::to_string(proxy->port()), port, "", "", false),
                  0);
        ASSERT_EQ(request->send("x", 1), 0) << port;
    }
    // The port appended as ":port", with basic credentials.
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, "http://server.invalid/zel2/x", "127.0.0.1",
                            proxy->port(), "user", "secret", false),
              0);
    ASSERT_EQ(request->send("x", 1), 0);
    EXPECT_EQ(request->status(), 200);

    auto requests = proxy->requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_TRUE(requests[0].starts_with("POST http://server.invalid:8123/zel2/x HTTP/1.1\r\n"));
    EXPECT_EQ(requests[0].find("Proxy-Authorization"), std::string::npos);
    EXPECT_TRUE(requests[2].starts_with("POST http://server.invalid/zel2/x HTTP/1.1\r\n"))
        << requests[2];
    // base64("user:secret")
    EXPECT_NE(requests[2].find("\r\nProxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n"),
              std::string::npos);
}

TEST(CurlXmlHttpRequest, SelfSignedCertificateIsAcceptedOnTheRetry) {
    auto certificate = Testing::TestCertificate::generate();
    ASSERT_NE(certificate, nullptr) << "the openssl command could not make a certificate";
    auto server = TestHttpServer::startHttps(*certificate);
    ASSERT_NE(server, nullptr);
    server->respond("/zel2/location", ScriptedResponse{200, {}, "<secure/>"});
    Testing::LogCapture log(kCategory);
    Exchange exchange = post(server->url() + "/zel2/location", "<q/>");
    ASSERT_EQ(exchange.result, 0);
    EXPECT_EQ(exchange.request->status(), 200);
    EXPECT_EQ(bodyOf(*exchange.request), "<secure/>");
    EXPECT_EQ(log.messages().size(), 1u);  // the certificate notice, no error
    ASSERT_EQ(server->requests().size(), 1u);
    EXPECT_EQ(server->requests()[0].body, "<q/>");
}

TEST(CurlXmlHttpRequest, AbortForgetsTheExchange) {
    auto server = RawHttpServer::replying("HTTP/1.1 200 OK\r\nA: b\r\nContent-Length: 1\r\n\r\n!");
    ASSERT_NE(server, nullptr);
    Exchange exchange = post(server->url() + "/");
    ASSERT_EQ(exchange.request->status(), 200);
    exchange.request->abort();
    EXPECT_EQ(exchange.request->status(), -1);
    EXPECT_EQ(exchange.request->statusText(), "");
    EXPECT_EQ(exchange.request->getAllResponseHeaders(), "");
    EXPECT_EQ(bodyOf(*exchange.request), "");
    EXPECT_EQ(exchange.request->send("x", 1), -1);  // no longer opened
}

struct Completion {
    std::mutex mutex;
    std::condition_variable done;
    int calls = 0;
    int result = -2;

    static void record(int result, void* context) {
        auto* self = static_cast<Completion*>(context);
        std::lock_guard lock(self->mutex);
        self->result = result;
        ++self->calls;
        self->done.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex);
        return done.wait_for(lock, std::chrono::seconds(20), [this] { return calls > 0; });
    }
};

TEST(CurlXmlHttpRequest, AsynchronousSendReportsThroughTheCallback) {
    auto server = TestHttpServer::start();
    ASSERT_NE(server, nullptr);
    server->respond("/a", ScriptedResponse{200, {}, "async"});
    Completion completion;
    auto request = newCurlXmlHttpRequest();
    request->setCompletionCallback(&Completion::record, &completion);
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, server->url() + "/a", true), 0);
    ASSERT_EQ(request->send("x", 1), 0);
    ASSERT_TRUE(completion.wait());
    EXPECT_EQ(completion.result, 0);
    EXPECT_EQ(request->status(), 200);
    EXPECT_EQ(bodyOf(*request), "async");
}

TEST(CurlXmlHttpRequest, AbortEndsARunningAsynchronousSend) {
    auto server = RawHttpServer::silent();
    ASSERT_NE(server, nullptr);
    Completion completion;
    auto request = newCurlXmlHttpRequest();
    request->setCompletionCallback(&Completion::record, &completion);
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, server->url() + "/", true), 0);
    ASSERT_EQ(request->send("x", 1), 0);
    while (server->connections() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    auto started = std::chrono::steady_clock::now();
    request->abort();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(completion.calls, 1);
    EXPECT_NE(completion.result, 0);
    EXPECT_EQ(server->connections(), 1);  // an aborted send is not sent again
    EXPECT_EQ(request->status(), -1);
}

TEST(CurlXmlHttpRequestSlow, NeverAnsweringServerTimesOutTwice) {
    auto server = RawHttpServer::silent();
    ASSERT_NE(server, nullptr);
    auto started = std::chrono::steady_clock::now();
    Exchange exchange = post(server->url() + "/");
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(exchange.result, 10060);
    EXPECT_EQ(server->connections(), 2);
    EXPECT_GE(waited, std::chrono::seconds(58));
    EXPECT_LT(waited, std::chrono::seconds(75));
}

}  // namespace
}  // namespace ZEL::SPI
