#include "support/test_databases.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace ZEL::Testing {
namespace {

// What `command` writes, without its last line end, and its exit status.
std::string output(const std::string& command, int& status) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    char line[1024];
    while (pipe && std::fgets(line, sizeof line, pipe)) {
        text += line;
    }
    status = pipe ? pclose(pipe) : -1;
    return text.substr(0, text.size() - text.ends_with('\n'));
}

}  // namespace

void BackendTest::SetUp() {
    if (GetParam() == Backend::kSqlite) {
        url_ = "sqlite:" + folder_.path() + "/zel.db";
        return;
    }
    // The process's server, started on first use: the folder of its socket.
    static int status = -1;
    static const std::string server =
        output(ZEL_SOURCE_DIR "/tests/support/postgresql.sh " + std::to_string(getpid()), status);
    if (status != 0) {
        EXPECT_EQ(WEXITSTATUS(status), 77) << "the test's PostgreSQL server did not start";
        GTEST_SKIP() << "PostgreSQL's server programs are not installed (Debian's postgresql)";
    }
    static int databases = 0;
    const std::string name = "zel" + std::to_string(++databases);
    queryTestDatabase("postgresql:///postgres?host=" + server + "&user=zel",
                      "CREATE DATABASE " + name);
    url_ = "postgresql:///" + name + "?host=" + server + "&user=zel";
}

std::string queryTestDatabase(const std::string& url, const std::string& sql) {
    const std::string client = url.starts_with("sqlite:")
                                   ? "sqlite3 -bail '" + url.substr(7) + "'"
                                   : "psql -XAtq -v ON_ERROR_STOP=1 '" + url + "'";
    int status = 0;
    const std::string value = output(client + " <<'ZEL_SQL'\n" + sql + ";\nZEL_SQL\n", status);
    EXPECT_EQ(status, 0) << sql;
    return value;
}

}  // namespace ZEL::Testing
