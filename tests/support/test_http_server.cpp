#include "support/test_http_server.h"

#include <httplib.h>
#include <strings.h>

namespace ZEL::Testing {

std::string RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (strcasecmp(key.c_str(), name.c_str()) == 0) {
            return value;
        }
    }
    return {};
}

size_t RecordedRequest::headerCount(const std::string& name) const {
    size_t count = 0;
    for (const auto& entry : headers) {
        count += strcasecmp(entry.first.c_str(), name.c_str()) == 0 ? 1 : 0;
    }
    return count;
}

TestHttpServer::TestHttpServer(std::unique_ptr<httplib::Server> server, bool secure)
    : server_(std::move(server)), secure_(secure) {
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        std::lock_guard lock(mutex_);
        RecordedRequest record{request.method, request.path, request.body, {}};
        for (const auto& [name, value] : request.headers) {
            record.headers.emplace(name, value);
        }
        requests_.push_back(std::move(record));
        auto script = scripts_.find(request.path);
        if (script == scripts_.end()) {
            response.status = 404;
            return;
        }
        response.status = script->second.status;
        for (const auto& [name, value] : script->second.headers) {
            response.headers.emplace(name, value);
        }
        if (!script->second.body.empty()) {
            response.set_content(script->second.body, script->second.contentType.c_str());
        }
    };
    server_->Get(".*", handler);
    server_->Post(".*", handler);
}

bool TestHttpServer::listen() {
    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) {
        return false;
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    for (int waited = 0; !server_->is_running() && waited < 5000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return server_->is_running();
}

std::unique_ptr<TestHttpServer> TestHttpServer::start() {
    std::unique_ptr<TestHttpServer> server(
        new TestHttpServer(std::make_unique<httplib::Server>(), false));
    return server->listen() ? std::move(server) : nullptr;
}

std::unique_ptr<TestHttpServer> TestHttpServer::startHttps(const TestCertificate& certificate) {
    auto ssl = std::make_unique<httplib::SSLServer>(certificate.certificatePath().c_str(),
                                                    certificate.keyPath().c_str());
    if (!ssl->is_valid()) {
        return nullptr;
    }
    std::unique_ptr<TestHttpServer> server(new TestHttpServer(std::move(ssl), true));
    return server->listen() ? std::move(server) : nullptr;
}

TestHttpServer::~TestHttpServer() {
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string TestHttpServer::url() const {
    return std::string(secure_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

void TestHttpServer::respond(const std::string& path, ScriptedResponse response) {
    std::lock_guard lock(mutex_);
    scripts_[path] = std::move(response);
}

std::vector<RecordedRequest> TestHttpServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

}  // namespace ZEL::Testing
