#include "support/tinyproxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <chrono>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/raw_http_server.h"

extern char** environ;

namespace ZEL::Testing {
namespace {

bool accepting(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

}  // namespace

bool TinyProxy::available() {
    const char* path = std::getenv("PATH");
    std::stringstream directories(path ? path : "/usr/bin:/usr/sbin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        if (access((directory + "/tinyproxy").c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

std::unique_ptr<TinyProxy> TinyProxy::start(const std::string& user, const std::string& password) {
    // The free port may be taken between the probe and tinyproxy's bind: try again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string pattern = (std::filesystem::temp_directory_path() / "zel_proxy_XXXXXX");
        if (mkdtemp(pattern.data()) == nullptr) {
            return nullptr;
        }
        std::unique_ptr<TinyProxy> proxy(new TinyProxy(pattern, freeLoopbackPort()));
        if (proxy->launch(user, password)) {
            return proxy;
        }
    }
    return nullptr;
}

bool TinyProxy::launch(const std::string& user, const std::string& password) {
    std::string config = directory_ + "/tinyproxy.conf";
    std::ofstream(config) << "Port " << port_ << "\nListen 127.0.0.1\nTimeout 60\n"
                          << "LogLevel Info\nLogFile \"" << directory_ << "/tinyproxy.log\"\n"
                          << "MaxClients 20\nDisableViaHeader Yes\n"
                          << "BasicAuth " << user << " " << password << "\n";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::string output = directory_ + "/output";
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    char* argv[] = {const_cast<char*>("tinyproxy"), const_cast<char*>("-d"),
                    const_cast<char*>("-c"), config.data(), nullptr};
    int error = posix_spawnp(&pid_, "tinyproxy", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        return false;
    }
    for (int waited = 0; waited < 500; ++waited) {
        if (accepting(port_)) {
            return true;
        }
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;  // exited, most likely because the port was taken
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop();
    return false;
}

void TinyProxy::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

TinyProxy::~TinyProxy() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string TinyProxy::log() const {
    std::ifstream file(directory_ + "/tinyproxy.log");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace ZEL::Testing
