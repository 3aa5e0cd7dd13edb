// The zel-server program itself: options, start-up line, a request, SIGTERM.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "remote/location_determination_remote.h"
#include "support/local_entries.h"
#include "support/location_server_fixture.h"

extern char** environ;

namespace ZEL::Server {
namespace {

const std::string kProgram = std::string(ZEL_BINARY_DIR) + "/bin/zel-server";

// A running zel-server whose standard output (and error) can be read.
class Program {
  public:
    explicit Program(std::vector<std::string> arguments) {
        int pipe[2];
        if (::pipe(pipe) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
        posix_spawn_file_actions_addclose(&actions, pipe[0]);
        arguments.insert(arguments.begin(), kProgram);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, kProgram.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        output_ = pipe[0];
    }
    ~Program() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(output_);
    }

    // Output up to and including the first line holding `text`, within 10 s.
    std::string readUntil(const std::string& text) {
        std::string seen;
        pollfd poll{output_, POLLIN, 0};
        while (seen.find(text) == std::string::npos && ::poll(&poll, 1, 10000) > 0) {
            char buffer[256];
            const ssize_t got = ::read(output_, buffer, sizeof buffer);
            if (got <= 0) {
                break;
            }
            seen.append(buffer, static_cast<size_t>(got));
        }
        return seen;
    }

    // The exit status after SIGTERM (or on its own), -1 when it does not end in 10 s.
    int waitForExit(bool terminate) {
        if (terminate) {
            ::kill(pid_, SIGTERM);
        }
        for (int i = 0; i < 1000; ++i) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

  private:
    pid_t pid_ = -1;
    int output_ = -1;
};

TEST(ServerProgram, ServesUntilTerminated) {
    Program server({"--tiles", Testing::TestLocationServer::tilePath(), "--realm",
                    Testing::kServerRealm, "--listen", "127.0.0.1:0", "--add-user", "alice"});
    const std::string started = server.readUntil("\n");
    const std::string marker = "listening on ";
    const size_t at = started.find(marker);
    ASSERT_NE(at, std::string::npos) << started;
    const std::string url =
        started.substr(at + marker.size(), started.find('\n', at) - at - marker.size());
    EXPECT_EQ(url.rfind("http://127.0.0.1:", 0), 0u) << url;

    Remote::LocationDeterminationRemote remote;
    remote.setServerUrl(url);
    Core::ScannedAP ap;
    ap.mac = Testing::testMac(1);
    ap.rss = -60;
    Core::LocationRecord record;
    EXPECT_EQ(remote.location({"alice", Testing::kServerRealm}, 0, {ap}, record),
              Core::ResultCode::kOk);
    EXPECT_EQ(record.nap, 1);
    // The access log goes to standard output.
    EXPECT_NE(server.readUntil("\" 200 ").find("POST /zel2/location"), std::string::npos);
    EXPECT_EQ(server.waitForExit(true), 0);
}

}  // namespace
}  // namespace ZEL::Server
