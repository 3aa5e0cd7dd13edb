// The real HTTP transport against a bare socket server (for answers a real server
// would not give: cut off, none at all, any bytes verbatim) and a real proxy.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <thread>

#include "spi/http/curl_xml_http_request.h"
#include "spi/http_request.h"
#include "support/hand_built_tile.h"

extern char** environ;

namespace ZEL::SPI {
namespace {

// A socket on 127.0.0.1 with an ephemeral port, and that port; -1 on failure.
int bindLoopback(int& port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

// Serves connections one after another: reads one request (head and Content-Length
// body), records it, then writes the reply verbatim and closes; without a reply it
// holds the connection until the client gives up.
class RawHttpServer {
  public:
    explicit RawHttpServer(std::optional<std::string> reply) : reply_(std::move(reply)) {
        listener_ = bindLoopback(port_);
        listen(listener_, 8);
        thread_ = std::thread([this] { serve(); });
    }
    ~RawHttpServer() {
        shutdown(listener_, SHUT_RDWR);  // ends the accept the server waits in
        thread_.join();
        close(listener_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int connections() const { return connections_.load(); }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

  private:
    static bool complete(const std::string& data) {
        const size_t head = data.find("\r\n\r\n");
        const size_t field = data.find("Content-Length: ");
        return head != std::string::npos &&
               data.size() >= head + 4 + (field < head ? std::stoul(data.substr(field + 16)) : 0);
    }
    void serve() {
        for (int client; (client = accept(listener_, nullptr, nullptr)) >= 0; close(client)) {
            ++connections_;
            std::string data;
            char buffer[4096];
            for (ssize_t got = 1; got > 0 && !(reply_ && complete(data));) {
                got = recv(client, buffer, sizeof buffer, 0);
                data.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
            }
            std::lock_guard lock(mutex_);
            requests_.push_back(data);
            if (reply_) {
                send(client, reply_->data(), reply_->size(), MSG_NOSIGNAL);
            }
        }
    }

    std::optional<std::string> reply_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<int> connections_{0};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

int freeLoopbackPort() {
    int port = -1;
    close(bindLoopback(port));
    return port;
}

struct Exchange {
    std::unique_ptr<XmlHttpRequest> request;
    int result = -2;
};

Exchange post(const std::string& url) {
    Exchange exchange{newCurlXmlHttpRequest()};
    EXPECT_EQ(exchange.request->open(XmlHttpRequest::kPost, url, false), 0);
    exchange.result = exchange.request->send("<a/>", 4);
    return exchange;
}

std::string bodyOf(const XmlHttpRequest& request) {
    std::string_view body;
    EXPECT_EQ(request.responseBody(body), 0);
    return std::string(body);
}

TEST(CurlXmlHttpRequest, SendsTheCallersHeadersAndReadsTheLastResponse) {
    RawHttpServer server(
        "HTTP/1.1 100 Continue\r\nX-Early: 1\r\n\r\n"
        "HTTP/1.1 200 Fine By Me\r\nX-Dup: first\r\nB-Header: a: b\r\nX-Dup: second\r\n"
        "NoSpace:value\r\nContent-Length: 5\r\n\r\nhello");
    auto request = newCurlXmlHttpRequest();
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, server.url() + "/zel2/x?q=1#frag", false), 0);
    request->setRequestHeader("Zeta", "1");
    request->setRequestHeader("Alpha", "first");
    request->setRequestHeader("Alpha", "second");
    std::string body(5000, 'b');  // past the size where clients like to ask for 100-continue
    ASSERT_EQ(request->send(body.data(), body.size()), 0);

    // Only the caller's headers go out, in name order, with the later value.
    ASSERT_EQ(server.requests().size(), 1u);
    std::string raw = server.requests()[0];
    EXPECT_TRUE(raw.starts_with("POST /zel2/x?q=1 HTTP/1.1\r\n")) << raw;
    size_t alpha = raw.find("\r\nAlpha: second\r\n");
    ASSERT_NE(alpha, std::string::npos) << raw;
    EXPECT_LT(alpha, raw.find("\r\nZeta: 1\r\n"));
    EXPECT_EQ(raw.find("first"), std::string::npos);
    for (const char* unwanted :
         {"\r\nExpect:", "\r\nAccept:", "\r\nContent-Type:", "\r\nUser-Agent:", "\r\nProxy-"}) {
        EXPECT_EQ(raw.find(unwanted), std::string::npos) << unwanted;
    }
    EXPECT_TRUE(raw.ends_with("\r\n\r\n" + body));

    EXPECT_EQ(request->status(), 200);
    EXPECT_EQ(request->statusText(), "Fine By Me");
    EXPECT_EQ(request->getResponseHeader("B-Header"), "a: b");  // split at the first ": "
    EXPECT_EQ(request->getAllResponseHeaders(),
              "B-Header: a: b\nContent-Length: 5\nX-Dup: second\n");
    EXPECT_EQ(bodyOf(*request), "hello");
    request->abort();  // forgets the exchange
    EXPECT_EQ(request->status(), -1);
    EXPECT_EQ(request->statusText() + request->getAllResponseHeaders() + bodyOf(*request), "");
    EXPECT_EQ(request->send("x", 1), -1);  // no longer opened
}

TEST(CurlXmlHttpRequest, AnswersAndFailuresMapToStatusesAndSocketErrors) {
    std::string big(300000, 'x');
    big.back() = 'y';
    struct Row {
        std::string reply;
        int result;
        int status;
        int connections;  // a failed send is tried once more, unless the answer had begun
        std::optional<std::string> body;
    };
    const Row rows[] = {
        {"HTTP/1.0 200 OK\r\n\r\n" + big, 0, 200, 1, big},  // no length: read until closed
        {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", 0, 200, 1, ""},
        // Error answers are answers, even cut off after their head; no redirect is followed.
        {"HTTP/1.1 401 Why\r\nContent-Length: 100\r\n\r\nwhy", 0, 401, 1, {}},
        {"HTTP/1.1 302 Why\r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n", 0, 302, 1, {}},
        {"HTTP/1.1 500 Why\r\nContent-Length: 3\r\n\r\nwhy", 0, 500, 1, "why"},
        {"", 10054, -1, 2, {}},
        {"HTTP/1.1 20", 10054, -1, 2, {}},
        {"SSH-2.0-nonsense\r\n\r\n", 10043, -1, 2, {}},
        {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial", 10054, -1, 1, {}},
        {"HTTP/1.1 200 OK\r\nContent-Length: 17825792\r\n\r\n" + std::string(17 << 20, 'z'),
         -1,
         -1,
         1,
         {}},  // past the 16 MiB limit
    };
    for (const Row& row : rows) {
        const std::string label = row.reply.substr(0, 40);
        RawHttpServer server(row.reply);
        Exchange exchange = post(server.url() + "/");
        EXPECT_EQ(exchange.result, row.result) << label;
        EXPECT_EQ(server.connections(), row.connections) << label;
        if (row.result == 0) {
            EXPECT_EQ(exchange.request->status(), row.status) << label;
        }
        if (row.body) {
            EXPECT_EQ(bodyOf(*exchange.request), *row.body) << label;
        }
    }
    const int port = freeLoopbackPort();
    EXPECT_EQ(post("http://127.0.0.1:" + std::to_string(port) + "/").result, 10061);
    EXPECT_EQ(post("http://no-such-host.invalid/").result, 10065);
}

TEST(CurlXmlHttpRequest, RejectsBadMethodsUrlsAndEmptyBodies) {
    auto request = newCurlXmlHttpRequest();
    EXPECT_EQ(request->open(7, "http://127.0.0.1/", false), 22);
    for (const char* url :
         {"", "not a url", "ftp://127.0.0.1/file", "file:///etc/passwd", "http://"}) {
        EXPECT_EQ(request->open(XmlHttpRequest::kPost, url, false), 22) << url;
    }
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, "http://127.0.0.1:1/", false), 0);
    EXPECT_EQ(request->send("", 0), -1);
}

// A real proxy: tinyproxy on 127.0.0.1 in the foreground, demanding basic
// authentication; stopped with the object.
struct TinyProxy {
    Testing::TempDir dir;
    int port = freeLoopbackPort();
    pid_t pid = -1;

    // Whether it came up: the free port may be taken before tinyproxy binds it.
    bool start() {
        std::string config = dir.path() + "/tinyproxy.conf";
        std::ofstream(config) << "Port " << port << "\nListen 127.0.0.1\nTimeout 60\nLogFile \""
                              << dir.path() << "/log\"\nDisableViaHeader Yes\n"
                              << "BasicAuth proxyuser proxysecret\n";
        const char* argv[] = {"tinyproxy", "-d", "-c", config.c_str(), nullptr};
        if (posix_spawnp(&pid, "tinyproxy", nullptr, nullptr, const_cast<char**>(argv), environ)) {
            pid = -1;
            return false;
        }
        for (int waited = 0; waited < 500 && waitpid(pid, nullptr, WNOHANG) == 0; ++waited) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{
                AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
            const bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            close(fd);
            if (up) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    ~TinyProxy() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

TEST(CurlXmlHttpRequest, ProxyDemandsItsCredentials) {
    if (std::system("command -v tinyproxy >/dev/null") != 0) {
        GTEST_SKIP() << "tinyproxy is not installed (scripts/install-deps installs it)";
    }
    std::optional<TinyProxy> proxy;
    bool up = false;
    for (int attempt = 0; attempt < 3 && !up; ++attempt) {
        up = proxy.emplace().start();
    }
    ASSERT_TRUE(up) << "tinyproxy did not come up";
    RawHttpServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    const std::string host = "127.0.0.1";
    const std::string hostAndPort = host + ":" + std::to_string(proxy->port);
    struct Row {
        std::string proxy;
        int port;  // appended as ":port" when positive
        const char* user;
        const char* password;
        int status;  // tinyproxy answers wrong credentials with 401
    };
    for (const Row& row :
         {Row{host, proxy->port, "", "", 407}, Row{host, proxy->port, "proxyuser", "wrong", 401},
          Row{host, proxy->port, "proxyuser", "proxysecret", 200},
          Row{hostAndPort, 0, "proxyuser", "proxysecret", 200}}) {
        auto request = newCurlXmlHttpRequest();
        ASSERT_EQ(request->open(XmlHttpRequest::kPost, server.url() + "/zel2/registration",
                                row.proxy, row.port, row.user, row.password, false),
                  0);
        ASSERT_EQ(request->send("x", 1), 0);
        EXPECT_EQ(request->status(), row.status) << row.proxy << " " << row.port;
    }
    ASSERT_EQ(server.requests().size(), 2u);
    for (const std::string& request : server.requests()) {
        // The proxy's credentials are for the proxy only.
        EXPECT_EQ(request.find("Proxy-Authorization"), std::string::npos);
    }
}

struct Completion {
    std::atomic<int> calls{0};
    std::atomic<int> result{-2};
    static void record(int result, void* context) {
        static_cast<Completion*>(context)->result = result;
        ++static_cast<Completion*>(context)->calls;
    }
};

// Kept on purpose: the asynchronous send works, though the engine never uses it.
TEST(CurlXmlHttpRequest, AbortEndsARunningAsynchronousSendThroughTheCallback) {
    RawHttpServer silent(std::nullopt);
    Completion completion;
    auto request = newCurlXmlHttpRequest();
    request->setCompletionCallback(&Completion::record, &completion);
    ASSERT_EQ(request->open(XmlHttpRequest::kPost, silent.url() + "/", true), 0);
    ASSERT_EQ(request->send("x", 1), 0);
    while (silent.connections() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    auto started = std::chrono::steady_clock::now();
    request->abort();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(completion.calls, 1);
    EXPECT_NE(completion.result, 0);
    EXPECT_EQ(silent.connections(), 1);  // an aborted send is not sent again
}

TEST(CurlXmlHttpRequestSlow, NeverAnsweringServerTimesOutTwice) {
    RawHttpServer server(std::nullopt);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(post(server.url() + "/").result, 10060);
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(server.connections(), 2);
    EXPECT_GE(waited, std::chrono::seconds(58));
    EXPECT_LT(waited, std::chrono::seconds(75));
}

}  // namespace
}  // namespace ZEL::SPI
