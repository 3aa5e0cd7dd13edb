// The user table under concurrent registrations, through two servers sharing one
// database file (as two processes behind a load balancer would).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "remote/location_determination_remote.h"
#include "support/location_server_fixture.h"

namespace ZEL::Server {
namespace {

using Testing::kRegisteredUser;
using Testing::kServerRealm;

class SharedUserDatabase : public ::testing::Test {
  protected:
    void SetUp() override {
        directory_ =
            std::filesystem::temp_directory_path() / ("zel-users-" + std::to_string(::getpid()));
        std::filesystem::create_directories(directory_);
        path_ = (directory_ / "users.db").string();
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    std::filesystem::path directory_;
    std::string path_;
};

TEST_F(SharedUserDatabase, ConcurrentRegistrationsCreateEachUserOnce) {
    Testing::LocationServerConfig config;
    config.usersPath = path_;
    auto first = Testing::TestLocationServer::start(config);
    auto second = Testing::TestLocationServer::start(config);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);

    // Every thread tries every name, half through each server: each name must be
    // created exactly once, and every other attempt told that it exists.
    constexpr int kThreads = 6;
    constexpr int kNames = 30;
    std::atomic<int> created[kNames] = {};
    std::atomic<int> refused{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Remote::LocationDeterminationRemote remote;
            for (int n = 0; n < kNames; ++n) {
                const int name = (n + t * 5) % kNames;
                remote.setServerUrl(((n + t) % 2 ? first : second)->serviceUrl());
                const std::string user = "user" + std::to_string(name);
                const Core::ResultCode code = remote.registerUser({kRegisteredUser, kServerRealm},
                                                                  {user.c_str(), kServerRealm});
                if (code == Core::ResultCode::kOk) {
                    ++created[name];
                } else if (code == Core::ResultCode::kCannotDetermine) {
                    ++refused;
                } else {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failed.load(), 0);
    for (int n = 0; n < kNames; ++n) {
        EXPECT_EQ(created[n].load(), 1) << "user" << n;
    }
    EXPECT_EQ(refused.load(), kThreads * kNames - kNames);
    first->stop();
    second->stop();

    // A fresh connection sees every user once.
    std::string error;
    auto store = UserStore::open(path_, error);
    ASSERT_NE(store, nullptr) << error;
    EXPECT_EQ(store->count(kServerRealm), size_t{kNames + 1});
    EXPECT_EQ(store->find("user17", kServerRealm), UserStore::Lookup::Registered);
    EXPECT_EQ(store->find("user17", "other"), UserStore::Lookup::Unknown);
}

}  // namespace
}  // namespace ZEL::Server
