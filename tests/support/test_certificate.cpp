#include "support/test_certificate.h"

#include <cstdlib>
#include <filesystem>

namespace ZEL::Testing {

TestCertificate::TestCertificate(std::string directory)
    : directory_(std::move(directory)),
      certificatePath_(directory_ + "/certificate.pem"),
      keyPath_(directory_ + "/key.pem") {}

TestCertificate::~TestCertificate() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::unique_ptr<TestCertificate> TestCertificate::generate() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel_cert_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return nullptr;
    }
    std::unique_ptr<TestCertificate> certificate(new TestCertificate(pattern));
    // An EC key is made in milliseconds; RSA would slow every TLS test down.
    std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1"
        " -nodes -days 2 -subj /CN=localhost -keyout '" +
        certificate->keyPath_ + "' -out '" + certificate->certificatePath_ + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        return nullptr;
    }
    return certificate;
}

}  // namespace ZEL::Testing
