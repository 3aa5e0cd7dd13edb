// A real HTTP(S) server on 127.0.0.1 for tests: answers each path with a scripted
// response and records every request it received.
//
//   auto server = TestHttpServer::start();            // or startHttps(certificate)
//   server->respond("/zel2/location", {200, {}, body});
//   ... point the client at server->url() + "/zel2" ...
//   server->requests()[0].body
//
// Paths without a script get 404. Responses are sent to GET, POST and HEAD alike.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/test_certificate.h"

namespace httplib {
class Server;
}

namespace ZEL::Testing {

struct ScriptedResponse {
    int status = 200;
    // Sent in this order; a name may repeat (each line goes out).
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string contentType = "text/xml";
};

struct RecordedRequest {
    std::string method;
    std::string path;
    std::string body;
    std::multimap<std::string, std::string> headers;  // names as sent

    // The first value of header `name` (case-insensitive), or empty.
    std::string header(const std::string& name) const;
    size_t headerCount(const std::string& name) const;
};

class TestHttpServer {
  public:
    // Listens on an ephemeral port of 127.0.0.1; null when the server cannot start.
    static std::unique_ptr<TestHttpServer> start();
    static std::unique_ptr<TestHttpServer> startHttps(const TestCertificate& certificate);
    ~TestHttpServer();

    // "http://127.0.0.1:PORT" (or https), without a trailing slash.
    std::string url() const;
    int port() const { return port_; }

    void respond(const std::string& path, ScriptedResponse response);
    std::vector<RecordedRequest> requests() const;

  private:
    TestHttpServer(std::unique_ptr<httplib::Server> server, bool secure);
    bool listen();

    std::unique_ptr<httplib::Server> server_;
    bool secure_;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::map<std::string, ScriptedResponse> scripts_;
    std::vector<RecordedRequest> requests_;
};

}  // namespace ZEL::Testing
