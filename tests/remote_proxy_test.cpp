// The remote client through a real proxy that demands basic authentication.
#include <gtest/gtest.h>

#include "remote/location_determination_remote.h"
#include "remote/request_messages.h"
#include "support/test_http_server.h"
#include "support/tinyproxy.h"

namespace ZEL::API {
namespace {

using Testing::ScriptedResponse;
using Testing::TestHttpServer;
using Testing::TinyProxy;

const ZEL_Authentication kAlice{"alice", "acme"};

class RemoteThroughProxy : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!TinyProxy::available()) {
            GTEST_SKIP() << "tinyproxy is not installed (scripts/install-deps installs it)";
        }
        proxy_ = TinyProxy::start("proxyuser", "proxysecret");
        ASSERT_NE(proxy_, nullptr) << "tinyproxy did not come up";
        certificate_ = Testing::TestCertificate::generate();
        ASSERT_NE(certificate_, nullptr);
        http_ = TestHttpServer::start();
        https_ = TestHttpServer::startHttps(*certificate_);
        ASSERT_NE(http_, nullptr);
        ASSERT_NE(https_, nullptr);
        std::string answer = std::string("<RegistrationRS xmlns='") + Remote::kRequestNamespaceUri + "'/>";
        http_->respond("/zel2/registration", ScriptedResponse{200, {}, answer});
        https_->respond("/zel2/registration", ScriptedResponse{200, {}, answer});
    }

    int registerThrough(const TestHttpServer& server, const char* user, const char* password) {
        Remote::LocationDeterminationRemote remote;
        remote.setServerUrl(server.url() + "/zel2");
        remote.setProxy("127.0.0.1", proxy_->port(), user, password);
        return remote.registerUser(kAlice, kAlice);
    }

    std::unique_ptr<TinyProxy> proxy_;
    std::unique_ptr<Testing::TestCertificate> certificate_;
    std::unique_ptr<TestHttpServer> http_;
    std::unique_ptr<TestHttpServer> https_;
};

TEST_F(RemoteThroughProxy, MissingOrWrongCredentialsAreRefused) {
    EXPECT_EQ(registerThrough(*http_, "", ""), ZEL_ERROR_PROXY_UNAUTHORIZED) << proxy_->log();
    // tinyproxy answers wrong credentials with 401, which reads as refused credentials.
    EXPECT_EQ(registerThrough(*http_, "proxyuser", "wrong"), ZEL_ERROR_UNAUTHORIZED);
    // The tunnel to an HTTPS server is refused the same way.
    EXPECT_EQ(registerThrough(*https_, "", ""), ZEL_ERROR_PROXY_UNAUTHORIZED) << proxy_->log();
    EXPECT_TRUE(http_->requests().empty());
    EXPECT_TRUE(https_->requests().empty());
}

TEST_F(RemoteThroughProxy, CredentialsGetThroughToHttpAndHttps) {
    EXPECT_EQ(registerThrough(*http_, "proxyuser", "proxysecret"), 0) << proxy_->log();
    EXPECT_EQ(registerThrough(*https_, "proxyuser", "proxysecret"), 0) << proxy_->log();
    ASSERT_EQ(http_->requests().size(), 1u);
    ASSERT_EQ(https_->requests().size(), 1u);
    EXPECT_EQ(http_->requests()[0].body, Remote::makeRegistrationRequest(kAlice, kAlice));
    EXPECT_EQ(https_->requests()[0].header("User-Agent"), "ZEL API");
    // The proxy's credentials are for the proxy only.
    EXPECT_EQ(http_->requests()[0].headerCount("Proxy-Authorization"), 0u);
}

}  // namespace
}  // namespace ZEL::API
