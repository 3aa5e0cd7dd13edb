// A real HTTP proxy for tests: tinyproxy on 127.0.0.1, started with a generated
// configuration that demands basic authentication, stopped with the object.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace ZEL::Testing {

class TinyProxy {
  public:
    // Whether the tinyproxy program can be found on the PATH.
    static bool available();
    // Listens on a free port and accepts only `user`:`password`. Null when it did
    // not come up (its log is kept in log()).
    static std::unique_ptr<TinyProxy> start(const std::string& user, const std::string& password);
    ~TinyProxy();

    int port() const { return port_; }
    // What the proxy logged so far, for failure messages.
    std::string log() const;

  private:
    TinyProxy(std::string directory, int port) : directory_(std::move(directory)), port_(port) {}
    bool launch(const std::string& user, const std::string& password);
    void stop();

    std::string directory_;
    int port_;
    pid_t pid_ = -1;
};

}  // namespace ZEL::Testing
