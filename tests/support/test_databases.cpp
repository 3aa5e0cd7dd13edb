#include "support/test_databases.h"

#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace ZEL::Testing {
namespace {

// The folder holding initdb and postgres: Debian's newest /usr/lib/postgresql/N/bin;
// "" when there is none.
std::string serverBinaries() {
    glob_t found{};
    std::string folder;
    if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &found) == 0) {
        std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
        std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
            return a.size() != b.size() ? a.size() < b.size() : a < b;  // 9 before 15
        });
        folder = std::filesystem::path(paths.back()).parent_path();
    }
    globfree(&found);
    return !folder.empty() && std::filesystem::exists(folder + "/postgres") ? folder : "";
}

// Starts `arguments` with output to `log`, as `user` when given (running as root);
// a server child dies with this process.
pid_t spawn(const std::vector<std::string>& arguments, const std::string& log, const passwd* user,
            bool server) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (user &&
        (setgroups(0, nullptr) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)) {
        _exit(126);
    }
    // Set after setuid, which clears it; SIGQUIT is the server's immediate stop.
    if (server && (prctl(PR_SET_PDEATHSIG, SIGQUIT) != 0 || getppid() != parent)) {
        _exit(126);
    }
    execv(argv[0], argv.data());
    _exit(127);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

TestPostgresql* TestPostgresql::shared(std::string& skipReason) {
    static const std::string binaries = serverBinaries();
    static std::unique_ptr<TestPostgresql> server;
    static std::string failure;
    if (binaries.empty()) {
        skipReason =
            "no PostgreSQL server programs (initdb, postgres): install Debian's postgresql";
        return nullptr;
    }
    if (!server && failure.empty()) {
        server.reset(new TestPostgresql);
        if (!server->start(binaries, failure)) {
            server.reset();
        }
    }
    if (!server) {
        ADD_FAILURE() << "the test PostgreSQL server did not start: " << failure;
        skipReason = "the test PostgreSQL server did not start";
    }
    return server.get();
}

bool TestPostgresql::start(const std::string& binaries, std::string& error) {
    directory_ = std::filesystem::temp_directory_path() / "zel_pg_XXXXXX";
    if (mkdtemp(directory_.data()) == nullptr) {
        error = "no temporary folder";
        directory_.clear();
        return false;
    }
    const passwd* user = nullptr;
    if (geteuid() == 0) {
        user = getpwnam("nobody");
        if (!user || chown(directory_.c_str(), user->pw_uid, user->pw_gid) != 0) {
            error = "running as root, and the folder cannot be given to user nobody";
            return false;
        }
    }
    const std::string log = directory_ + "/log";
    const pid_t initdb = spawn({binaries + "/initdb", "-D", directory_ + "/data", "-U", "zel", "-A",
                                "trust", "--no-sync", "--no-locale", "-E", "UTF8"},
                               log, user, false);
    int status = 0;
    if (initdb < 0 || waitpid(initdb, &status, 0) != initdb || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        error = "initdb failed: " + readFile(log);
        return false;
    }
    server_ = spawn({binaries + "/postgres", "-D", directory_ + "/data", "-k", directory_, "-c",
                     "listen_addresses=", "-c", "fsync=off", "-c", "max_connections=200"},
                    log, user, true);
    const std::string ping = "host=" + directory_ + " user=zel dbname=postgres";
    for (int waited = 0; waited < 600; ++waited) {
        if (PQping(ping.c_str()) == PQPING_OK) {
            return true;
        }
        if (waitpid(server_, &status, WNOHANG) == server_) {
            server_ = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    error = "the server did not answer: " + readFile(log);
    return false;
}

TestPostgresql::~TestPostgresql() {
    if (server_ > 0) {
        kill(server_, SIGINT);  // a fast, clean stop
        waitpid(server_, nullptr, 0);
    }
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
}

std::string TestPostgresql::newDatabase() {
    const std::string name = "zel" + std::to_string(++databases_);
    PGconn* connection = PQconnectdb(("host=" + directory_ + " user=zel dbname=postgres").c_str());
    PGresult* result = PQexec(connection, ("CREATE DATABASE " + name).c_str());
    EXPECT_EQ(PQresultStatus(result), PGRES_COMMAND_OK) << PQerrorMessage(connection);
    PQclear(result);
    PQfinish(connection);
    return "postgresql:///" + name + "?host=" + directory_ + "&user=zel";
}

std::string newTestDatabase(Backend backend, const std::string& folder, std::string& skipReason) {
    if (backend == Backend::kSqlite) {
        return "sqlite:" + folder + "/zel.db";
    }
    TestPostgresql* server = TestPostgresql::shared(skipReason);
    return server ? server->newDatabase() : "";
}

}  // namespace ZEL::Testing
