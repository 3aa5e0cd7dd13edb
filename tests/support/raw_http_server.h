// A bare socket server on 127.0.0.1 for answers a real HTTP server would not give:
// an answer cut off mid-way, no answer at all, or any bytes written verbatim.
//
// Each connection reads one request (head and Content-Length body), records its
// raw bytes, then plays the behaviour. Connections are served one after another.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ZEL::Testing {

class RawHttpServer {
  public:
    // Writes `reply` verbatim after the request, then closes the connection.
    static std::unique_ptr<RawHttpServer> replying(std::string reply);
    // Reads the request and never answers; the connection stays open until the
    // client gives up or the server is destroyed.
    static std::unique_ptr<RawHttpServer> silent();
    ~RawHttpServer();

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int port() const { return port_; }
    int connections() const { return connections_.load(); }
    // The raw bytes of every request received, in order.
    std::vector<std::string> requests() const;

  private:
    RawHttpServer(std::string reply, bool answer);
    bool listen();
    void serve();
    void handle(int client);

    std::string reply_;
    bool answer_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

// A TCP port on 127.0.0.1 that was free a moment ago (bound to port 0, then closed):
// for a server that must be told its port, and for a port nobody listens on.
int freeLoopbackPort();

}  // namespace ZEL::Testing
