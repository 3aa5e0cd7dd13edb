#include "support/raw_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace ZEL::Testing {
namespace {

int bindLoopback(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Waits up to `ms` for `fd` to become readable; false on time-out.
bool readable(int fd, int ms) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, ms) > 0;
}

// The request is complete when the head ended and Content-Length bytes followed.
bool requestComplete(const std::string& data) {
    size_t headEnd = data.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
        return false;
    }
    size_t length = 0;
    size_t field = data.find("Content-Length: ");
    if (field != std::string::npos && field < headEnd) {
        length = std::strtoul(data.c_str() + field + 16, nullptr, 10);
    }
    return data.size() >= headEnd + 4 + length;
}

}  // namespace

int freeLoopbackPort() {
    int fd = bindLoopback(0);
    if (fd < 0) {
        return -1;
    }
    int port = boundPort(fd);
    close(fd);
    return port;
}

RawHttpServer::RawHttpServer(std::string reply, bool answer)
    : reply_(std::move(reply)), answer_(answer) {}

std::unique_ptr<RawHttpServer> RawHttpServer::replying(std::string reply) {
    std::unique_ptr<RawHttpServer> server(new RawHttpServer(std::move(reply), true));
    return server->listen() ? std::move(server) : nullptr;
}

std::unique_ptr<RawHttpServer> RawHttpServer::silent() {
    std::unique_ptr<RawHttpServer> server(new RawHttpServer({}, false));
    return server->listen() ? std::move(server) : nullptr;
}

bool RawHttpServer::listen() {
    listener_ = bindLoopback(0);
    if (listener_ < 0 || ::listen(listener_, 8) != 0) {
        return false;
    }
    port_ = boundPort(listener_);
    thread_ = std::thread([this] { serve(); });
    return true;
}

RawHttpServer::~RawHttpServer() {
    stopping_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    if (listener_ >= 0) {
        close(listener_);
    }
}

std::vector<std::string> RawHttpServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void RawHttpServer::serve() {
    while (!stopping_) {
        if (!readable(listener_, 50)) {
            continue;
        }
        int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        ++connections_;
        handle(client);
        close(client);
    }
}

void RawHttpServer::handle(int client) {
    std::string data;
    char buffer[4096];
    while (!stopping_ && !requestComplete(data)) {
        if (!readable(client, 50)) {
            continue;
        }
        ssize_t got = recv(client, buffer, sizeof buffer, 0);
        if (got <= 0) {
            break;
        }
        data.append(buffer, static_cast<size_t>(got));
    }
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(data);
    }
    if (answer_) {
        send(client, reply_.data(), reply_.size(), MSG_NOSIGNAL);
        return;
    }
    // Silent: hold the connection until the client closes it or the server stops.
    while (!stopping_) {
        if (readable(client, 50) && recv(client, buffer, sizeof buffer, 0) <= 0) {
            return;
        }
    }
}

}  // namespace ZEL::Testing
