// A self-signed certificate and its key, made with the openssl command for one test
// run and deleted with the object. Issued for "localhost", so a client reaching
// 127.0.0.1 sees an unknown issuer and a name that does not match.
#pragma once

#include <memory>
#include <string>

namespace ZEL::Testing {

class TestCertificate {
  public:
    // Null when the openssl command is missing or failed.
    static std::unique_ptr<TestCertificate> generate();
    ~TestCertificate();

    const std::string& certificatePath() const { return certificatePath_; }
    const std::string& keyPath() const { return keyPath_; }

  private:
    explicit TestCertificate(std::string directory);
    std::string directory_;
    std::string certificatePath_;
    std::string keyPath_;
};

}  // namespace ZEL::Testing
